// A ModelHost for driving a device model directly: it keeps what the model
// queued per IN endpoint and the frames it put on the bus, at a device time
// the test sets.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "sim/SimModel.h"

namespace wcansim {

class FakeModelHost : public ModelHost {
public:
  uint32_t timeUs = 0;
  std::map<uint8_t, std::vector<Bytes>> queued;
  std::vector<std::pair<unsigned, CanFrame>> sent;

  uint32_t deviceTimeUs() const override { return timeUs; }
  void queueIn(uint8_t ep, Bytes bytes) override { queued[ep].push_back(std::move(bytes)); }
  void sendToBus(unsigned channel, const CanFrame &frame) override {
    sent.emplace_back(channel, frame);
  }

  // The oldest transfer queued on `ep`, removed; empty when there is none.
  Bytes take(uint8_t ep) {
    auto &q = queued[ep];
    if (q.empty())
      return {};
    Bytes front = std::move(q.front());
    q.erase(q.begin());
    return front;
  }

  // Write `bytes` to `ep` of `model` and return the reply queued on `replyEp`.
  Bytes exchange(DeviceModel &model, uint8_t ep, const Bytes &bytes, uint8_t replyEp) {
    model.onHostWrite(*this, ep, bytes.data(), bytes.size());
    return take(replyEp);
  }
};

} // namespace wcansim
