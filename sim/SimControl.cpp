// SPDX-License-Identifier: MIT
// The control interface of wcan_sim.h over the test bed.
#include "wcan_sim.h"

#include "SimTestbed.h"

namespace wcansim {

namespace {

Testbed &bed() { return Testbed::instance(); }

template <class F> void withAdapter(AdapterId id, F &&f) {
  if (auto a = bed().adapter(id))
    f(*a);
}

} // namespace

void reset() { bed().reset(); }

AdapterId plugIn(unsigned devType) { return bed().plugIn(devType); }

void unplug(AdapterId adapter) { bed().unplug(adapter); }

void replug(AdapterId adapter) {
  withAdapter(adapter, [](Adapter &a) { a.replug(); });
}

void setSilent(AdapterId adapter, bool silent) {
  withAdapter(adapter, [silent](Adapter &a) { a.setSilent(silent); });
}

void injectReplyFault(AdapterId adapter, ReplyFault fault, uint8_t value, int count) {
  withAdapter(adapter, [&](Adapter &a) { a.injectReplyFault(fault, value, count); });
}

void pushIn(AdapterId adapter, uint8_t ep, const Bytes &bytes) {
  withAdapter(adapter, [&](Adapter &a) { a.pushIn(ep, bytes); });
}

bool streamBacklog(AdapterId adapter, const std::vector<ChannelFrame> &frames, uint64_t times) {
  auto a = bed().adapter(adapter);
  return a && a->streamBacklog(frames, times);
}

std::vector<Bytes> written(AdapterId adapter, uint8_t ep) {
  auto a = bed().adapter(adapter);
  return a ? a->written(ep) : std::vector<Bytes>{};
}

void clearWritten(AdapterId adapter) {
  withAdapter(adapter, [](Adapter &a) { a.clearWritten(); });
}

void injectFrame(AdapterId adapter, unsigned channel, const CanFrame &frame) {
  bed().inject(adapter, channel, frame);
}

DeviceModel *model(AdapterId adapter) {
  auto a = bed().adapter(adapter);
  return a ? a->model() : nullptr;
}

uint64_t framesSent(AdapterId adapter, unsigned channel) {
  auto a = bed().adapter(adapter);
  return a ? a->framesSent(channel) : 0;
}

uint64_t framesDelivered(AdapterId adapter, unsigned channel) {
  auto a = bed().adapter(adapter);
  return a ? a->framesDelivered(channel) : 0;
}

void setPacing(bool on) { bed().setPacing(on); }

bool pacing() { return bed().pacing(); }

int64_t lastReadEndNs(AdapterId adapter, uint8_t ep) {
  auto a = bed().adapter(adapter);
  return a ? a->lastReadEndNs(ep) : 0;
}

void setReadWaitPolicy(ReadWaitPolicy policy) { Adapter::setReadWaitPolicy(policy); }

void wakeReaders() { bed().wakeReaders(); }

} // namespace wcansim

extern "C" {

int wcan_sim_plug_in(unsigned devType) { return wcansim::plugIn(devType); }
void wcan_sim_reset(void) { wcansim::reset(); }
void wcan_sim_unplug(int adapter) { wcansim::unplug(adapter); }
void wcan_sim_replug(int adapter) { wcansim::replug(adapter); }
void wcan_sim_set_pacing(int on) { wcansim::setPacing(on != 0); }
}
