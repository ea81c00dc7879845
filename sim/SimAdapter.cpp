// SPDX-License-Identifier: MIT
#include "SimAdapter.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BusTiming.h"
#include "SimEvents.h"

namespace wcansim {

namespace {

// A real endpoint FIFO is small; a host that never reads an endpoint (the
// CAN FD driver ignores the transmit acknowledgements) must not make the
// simulation grow without end, so the newest transfer is dropped when full.
constexpr size_t kMaxQueuedTransfers = 1024;
// The record of written transfers keeps the most recent ones per endpoint,
// enough for any test, bounded for long runs of the tools.
constexpr size_t kMaxWrittenPerEndpoint = 8192;
constexpr uint8_t kCommandReplyEp = 0x81;

bool traceEnabled() {
  static const bool enabled = [] {
    const char *v = std::getenv("WCAN_SIM_TRACE");
    return v != nullptr && std::strcmp(v, "1") == 0;
  }();
  return enabled;
}

size_t epSlot(uint8_t ep) { return ep & 0x0F; }

std::atomic<ReadWaitPolicy> readWaitPolicy{nullptr};

bool waitCutShort(uint8_t ep, unsigned timeoutMs) {
  const ReadWaitPolicy policy = readWaitPolicy.load(std::memory_order_acquire);
  return policy != nullptr && policy(ep, timeoutMs) == ReadWait::TimeOut;
}

uint8_t nextBusAddress() {
  static std::atomic<unsigned> counter{0};
  return static_cast<uint8_t>(1 + counter.fetch_add(1) % 127);
}

uint64_t nextReplugOrder() {
  static std::atomic<uint64_t> counter{0};
  return counter.fetch_add(1) + 1;
}

} // namespace

// Sixteen sockets per bus: root port 1 feeds a four-port hub, each of whose
// ports feeds another four-port hub. Slots past 4,079 share sockets again.
UsbSocket socketOf(int slot) {
  const auto n = static_cast<unsigned>(slot);
  return {static_cast<uint8_t>(1 + n / 16 % 255),
          {1, static_cast<uint8_t>(1 + n / 4 % 4), static_cast<uint8_t>(1 + n % 4)}};
}

std::string serialNumberOf(unsigned devType, int slot) {
  char text[32];
  std::snprintf(text, sizeof text, "WS%02u%06d", devType % 100, slot);
  return text;
}

Adapter::Adapter(AdapterId id, unsigned devType, std::unique_ptr<DeviceModel> model, int slot)
    : id_(id), slot_(slot < 0 ? id : slot), devType_(devType), model_(std::move(model)),
      vendorId_(model_->vendorId()), productId_(model_->productId()),
      channelCount_(std::min<unsigned>(model_->channelCount(), kMaxChannels)),
      hasUsbSerialNumber_(model_->hasUsbSerialNumber()), socket_(socketOf(slot_)),
      address_(nextBusAddress()), pluggedAt_(std::chrono::steady_clock::now()) {}

uint32_t Adapter::deviceTimeUs() const { return deviceTimeAt(std::chrono::steady_clock::now()); }

uint32_t Adapter::deviceTimeAt(std::chrono::steady_clock::time_point at) const {
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(at - pluggedAt_).count();
  // A frame that ended before a replug is stamped at the plug-in.
  return static_cast<uint32_t>(static_cast<uint64_t>(std::max<int64_t>(us, 0)));
}

void Adapter::queueIn(uint8_t ep, Bytes bytes) {
  if (silent_)
    return;
  if (ep == kCommandReplyEp)
    applyReplyFault(bytes);
  enqueue(ep, std::move(bytes));
}

void Adapter::sendToBus(unsigned channel, const CanFrame &frame) {
  outbox_.push_back({channel, frame});
}

void Adapter::enqueue(uint8_t ep, Bytes bytes) {
  InQueue &q = in_[epSlot(ep)];
  if (bytes.empty() || q.transfers.size() >= kMaxQueuedTransfers)
    return;
  q.transfers.push_back(std::move(bytes));
  dataOrGone_[epSlot(ep)].notify_all();
  usbEventHappened();
}

void Adapter::applyReplyFault(Bytes &reply) {
  if (faults_.empty())
    return;
  PendingFault &f = faults_.front();
  switch (f.fault) {
  case ReplyFault::Short:
    if (reply.size() > f.value)
      reply.resize(f.value);
    break;
  case ReplyFault::Foreign:
    if (reply.size() > 1)
      reply[1] = f.value;
    break;
  case ReplyFault::Status:
    if (reply.size() > 3)
      reply[3] = f.value;
    break;
  }
  if (--f.remaining <= 0)
    faults_.pop_front();
}

int Adapter::checkAlive(uint32_t generation) const {
  return isCurrent(generation) ? 0 : LIBUSB_ERROR_NO_DEVICE;
}

void Adapter::collectOutbox(BusFrames &toBus) {
  // A listen-only channel never drives the bus, whatever its model asks.
  for (BusFrame &f : outbox_) {
    if (f.channel >= channelCount_ || model_->channelListenOnly(f.channel))
      continue;
    f.duration = frameDurationLocked(f.channel, f.frame);
    toBus.push_back(f);
  }
  outbox_.clear();
}

std::chrono::nanoseconds Adapter::frameDurationLocked(unsigned channel,
                                                      const CanFrame &frame) const {
  return wcansim::frameDuration(frame, model_->bitRates(channel));
}

std::chrono::nanoseconds Adapter::frameDuration(unsigned channel, const CanFrame &frame) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return frameDurationLocked(channel, frame);
}

void Adapter::noteSent(unsigned channel) {
  if (channel < kMaxChannels)
    sent_[channel].fetch_add(1, std::memory_order_relaxed);
}

int Adapter::write(uint32_t generation, uint8_t ep, const uint8_t *data, int len, int *transferred,
                   BusFrames &toBus) {
  *transferred = 0;
  if ((ep & LIBUSB_ENDPOINT_IN) != 0 || len < 0 || (len > 0 && data == nullptr))
    return LIBUSB_ERROR_INVALID_PARAM;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!isCurrent(generation))
    return LIBUSB_ERROR_NO_DEVICE;
  trace("OUT", ep, data, static_cast<size_t>(len));
  auto &record = written_[epSlot(ep)];
  record.emplace_back(data, data + len);
  if (record.size() > kMaxWrittenPerEndpoint)
    record.pop_front();
  const int accepted = model_->onHostWrite(*this, ep, data, static_cast<size_t>(len));
  collectOutbox(toBus);
  if (accepted < 0)
    return accepted;
  *transferred = std::min(accepted, len);
  return 0;
}

int Adapter::takeFromQueue(uint8_t ep, uint8_t *buf, int len) {
  return static_cast<int>(
      in_[epSlot(ep)].take(model_->endpointShape(ep), buf, static_cast<size_t>(len)));
}

int Adapter::serve(uint8_t ep, uint8_t *buf, int len, int *transferred) {
  *transferred = takeFromQueue(ep, buf, len);
  trace("IN ", ep, buf, static_cast<size_t>(*transferred));
  lastServedNs_[epSlot(ep)].store(std::chrono::steady_clock::now().time_since_epoch() /
                                      std::chrono::nanoseconds(1),
                                  std::memory_order_relaxed);
  return 0;
}

int64_t Adapter::lastReadEndNs(uint8_t ep) const {
  return lastServedNs_[epSlot(ep)].load(std::memory_order_relaxed);
}

int Adapter::read(uint32_t generation, uint8_t ep, uint8_t *buf, int len, int *transferred,
                  unsigned timeoutMs) {
  *transferred = 0;
  if ((ep & LIBUSB_ENDPOINT_IN) == 0 || len < 0 || (len > 0 && buf == nullptr))
    return LIBUSB_ERROR_INVALID_PARAM;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (!isCurrent(generation))
      return LIBUSB_ERROR_NO_DEVICE;
    if (len == 0)
      return 0;
    InQueue &q = in_[epSlot(ep)];
    if (q.empty() && !silent_)
      model_->onReadEmpty(*this, ep);
    if (!q.empty())
      return serve(ep, buf, len, transferred);
    if (waitCutShort(ep, timeoutMs))
      return LIBUSB_ERROR_TIMEOUT;
    if (timeoutMs == 0) {
      dataOrGone_[epSlot(ep)].wait(lock);
    } else if (dataOrGone_[epSlot(ep)].wait_until(lock, deadline) == std::cv_status::timeout) {
      // One last look: data may have come with the time-out.
      if (isCurrent(generation) && !q.empty())
        return serve(ep, buf, len, transferred);
      return isCurrent(generation) ? LIBUSB_ERROR_TIMEOUT : LIBUSB_ERROR_NO_DEVICE;
    }
  }
}

int Adapter::poll(uint32_t generation, uint8_t ep, uint8_t *buf, int len, int *transferred) {
  *transferred = 0;
  if ((ep & LIBUSB_ENDPOINT_IN) == 0 || len < 0 || (len > 0 && buf == nullptr))
    return LIBUSB_ERROR_INVALID_PARAM;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!isCurrent(generation))
    return LIBUSB_ERROR_NO_DEVICE;
  InQueue &q = in_[epSlot(ep)];
  if (q.empty() && !silent_)
    model_->onReadEmpty(*this, ep);
  if (q.empty())
    return LIBUSB_ERROR_TIMEOUT;
  return serve(ep, buf, len, transferred);
}

int Adapter::resetDevice(uint32_t generation) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!isCurrent(generation))
    return LIBUSB_ERROR_NO_DEVICE;
  clearQueues();
  outbox_.clear();
  model_->onReset();
  return 0;
}

// The readers are woken once the lock is released: woken under it, they
// would only sleep again on it. The event handler is the caller's to wake,
// once for all the adapters a frame reached.
bool Adapter::deliver(unsigned channel, const CanFrame &frame, BusFrames &toBus,
                      std::chrono::steady_clock::time_point at) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!isPlugged() || channel >= channelCount_ || !model_->channelStarted(channel))
      return false;
    model_->onBusFrame(*this, channel, frame, deviceTimeAt(at));
    delivered_[channel].fetch_add(1, std::memory_order_relaxed);
    collectOutbox(toBus);
  }
  wakeAllReaders();
  return true;
}

void Adapter::wakeAllReaders() {
  for (auto &c : dataOrGone_)
    c.notify_all();
}

void Adapter::clearQueues() {
  for (InQueue &q : in_)
    q.clear();
}

void Adapter::setReadWaitPolicy(ReadWaitPolicy policy) {
  readWaitPolicy.store(policy, std::memory_order_release);
}

// Under the lock, so a reader between asking the policy and waiting cannot
// miss the wake-up.
void Adapter::wakeReaders() {
  std::lock_guard<std::mutex> lock(mutex_);
  wakeAllReaders();
}

void Adapter::unplug() {
  std::lock_guard<std::mutex> lock(mutex_);
  plugged_.store(false, std::memory_order_release);
  clearQueues();
  outbox_.clear();
  wakeAllReaders();
  usbPlugEventHappened();
}

void Adapter::replug() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (removed_ || isPlugged())
    return;
  generation_.fetch_add(1, std::memory_order_acq_rel);
  address_.store(nextBusAddress(), std::memory_order_release);
  replugOrder_.store(nextReplugOrder(), std::memory_order_release);
  pluggedAt_ = std::chrono::steady_clock::now();
  clearQueues();
  model_->onReset();
  plugged_.store(true, std::memory_order_release);
  wakeAllReaders();
  usbPlugEventHappened();
}

void Adapter::setPluggedAt(std::chrono::steady_clock::time_point at) {
  std::lock_guard<std::mutex> lock(mutex_);
  pluggedAt_ = at;
}

std::vector<ChannelState> Adapter::channelStates() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ChannelState> states(channelCount_);
  for (unsigned ch = 0; ch < channelCount_; ++ch)
    states[ch] = {model_->channelStarted(ch), model_->bitRates(ch)};
  return states;
}

uint8_t Adapter::streamEndpoint() const {
  for (uint8_t ep = 0x8F; ep > 0x81; --ep)
    if (model_->endpointShape(ep).kind == EndpointShape::Stream)
      return ep;
  return kCommandReplyEp;
}

void Adapter::remove() {
  std::lock_guard<std::mutex> lock(mutex_);
  removed_ = true;
  plugged_.store(false, std::memory_order_release);
  clearQueues();
  for (auto &record : written_)
    record.clear();
  wakeAllReaders();
  usbPlugEventHappened();
}

void Adapter::setSilent(bool silent) {
  std::lock_guard<std::mutex> lock(mutex_);
  silent_ = silent;
}

void Adapter::injectReplyFault(ReplyFault fault, uint8_t value, int count) {
  if (count <= 0)
    return;
  std::lock_guard<std::mutex> lock(mutex_);
  faults_.push_back({fault, value, count});
}

void Adapter::pushIn(uint8_t ep, const Bytes &bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (isPlugged())
    enqueue(ep | LIBUSB_ENDPOINT_IN, bytes);
}

// The block is encoded once and served from where it is: a producer that
// can offer the host more than any bus would, for measuring the host side.
bool Adapter::streamBacklog(const std::vector<ChannelFrame> &frames, uint64_t times) {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint8_t ep = streamEndpoint();
  if (!isPlugged() || silent_ || model_->endpointShape(ep).kind != EndpointShape::Stream)
    return false;
  auto block = std::make_shared<const Bytes>(model_->encodeBacklog(frames, deviceTimeUs()));
  if (block->empty() || times == 0)
    return false;
  in_[epSlot(ep)].setBacklog(std::move(block), times);
  dataOrGone_[epSlot(ep)].notify_all();
  usbEventHappened();
  return true;
}

std::vector<Bytes> Adapter::written(uint8_t ep) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto &record = written_[epSlot(ep)];
  return {record.begin(), record.end()};
}

void Adapter::clearWritten() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto &record : written_)
    record.clear();
}

uint64_t Adapter::framesSent(unsigned channel) const {
  return channel < kMaxChannels ? sent_[channel].load(std::memory_order_relaxed) : 0;
}

uint64_t Adapter::framesDelivered(unsigned channel) const {
  return channel < kMaxChannels ? delivered_[channel].load(std::memory_order_relaxed) : 0;
}

void Adapter::trace(const char *dir, uint8_t ep, const uint8_t *data, size_t len) const {
  if (!traceEnabled())
    return;
  std::string line = "wcan-sim[" + std::to_string(id_) + "] " + dir + " ep";
  char hex[4];
  std::snprintf(hex, sizeof hex, "%02x", ep);
  line += hex;
  line += ":";
  for (size_t i = 0; i < len; ++i) {
    std::snprintf(hex, sizeof hex, " %02x", data[i]);
    line += hex;
  }
  line += '\n';
  std::fputs(line.c_str(), stderr);
}

} // namespace wcansim
