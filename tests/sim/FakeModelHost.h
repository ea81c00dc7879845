// SPDX-License-Identifier: MIT
// A ModelHost that keeps everything a model hands it, for driving device
// models directly in tests.
#pragma once

#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "sim/SimModel.h"

namespace wcansim {

class FakeModelHost : public ModelHost {
public:
  uint32_t timeUs = 0;
  std::map<uint8_t, std::deque<Bytes>> queued;
  std::vector<std::pair<unsigned, CanFrame>> sent;

  uint32_t deviceTimeUs() const override { return timeUs; }
  void queueIn(uint8_t ep, Bytes bytes) override { queued[ep].push_back(std::move(bytes)); }
  void sendToBus(unsigned channel, const CanFrame &frame) override {
    sent.emplace_back(channel, frame);
  }

  int write(DeviceModel &model, uint8_t ep, const Bytes &bytes) {
    return model.onHostWrite(*this, ep, bytes.data(), bytes.size());
  }

  // The oldest transfer queued on `ep`, removed; empty when there is none.
  Bytes take(uint8_t ep) {
    auto &q = queued[ep];
    if (q.empty())
      return {};
    Bytes front = std::move(q.front());
    q.pop_front();
    return front;
  }

  // What one read of `ep` returns: the model fills an empty endpoint first,
  // as the adapter does.
  Bytes read(DeviceModel &model, uint8_t ep) {
    if (queued[ep].empty())
      model.onReadEmpty(*this, ep);
    return take(ep);
  }

  // Every byte queued on a stream endpoint, joined, and the queue emptied.
  Bytes drain(uint8_t ep) {
    Bytes out;
    for (const Bytes &b : queued[ep])
      out.insert(out.end(), b.begin(), b.end());
    queued[ep].clear();
    return out;
  }

  // Write `bytes` to `ep` and return the reply then queued on `replyEp`.
  Bytes exchange(DeviceModel &model, uint8_t ep, const Bytes &bytes, uint8_t replyEp) {
    write(model, ep, bytes);
    return take(replyEp);
  }
};

} // namespace wcansim
