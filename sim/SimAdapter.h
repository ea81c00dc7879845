// SPDX-License-Identifier: MIT
// One simulated USB adapter: a device model behind IN endpoint queues, with
// its own lock and a condition its blocked readers sleep on. The adapter knows
// nothing of libusb handles or of the bus wiring: it returns the frames its
// model put on the bus, and the caller routes them once the lock is released.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "InQueue.h"
#include "SimModel.h"
#include "wcan_sim.h"

namespace wcansim {

constexpr unsigned kMaxChannels = 16;

// A frame leaving an adapter channel for the bus, and how long its bits
// take at the channel's rates.
struct BusFrame {
  unsigned channel;
  CanFrame frame;
  std::chrono::nanoseconds duration{};
};
using BusFrames = std::vector<BusFrame>;

// Where an adapter is cabled into the host: its bus and the port path from
// the root hub. An adapter keeps its socket across unplug and replug.
struct UsbSocket {
  uint8_t bus;
  std::array<uint8_t, 3> ports;
};

// The socket and serial number of the adapter in a slot of the test bed:
// the same slot gives the same in every process sharing the buses.
UsbSocket socketOf(int slot);
std::string serialNumberOf(unsigned devType, int slot);

// What the host set a channel to, as the shared simulation shows it.
struct ChannelState {
  bool started = false;
  BitRates rates;
  bool operator==(const ChannelState &o) const {
    return started == o.started && rates.nominal == o.rates.nominal && rates.data == o.rates.data;
  }
};

class Adapter final : public ModelHost {
public:
  // `slot` numbers its socket and serial number; by default its id.
  Adapter(AdapterId id, unsigned devType, std::unique_ptr<DeviceModel> model, int slot = -1);

  AdapterId id() const { return id_; }
  int slot() const { return slot_; }
  unsigned devType() const { return devType_; }
  uint16_t vendorId() const { return vendorId_; }
  uint16_t productId() const { return productId_; }
  unsigned channelCount() const { return channelCount_; }
  bool hasUsbSerialNumber() const { return hasUsbSerialNumber_; }

  // Each plug-in is a new generation; handles of an older one keep failing.
  uint32_t generation() const { return generation_.load(std::memory_order_acquire); }
  bool isPlugged() const { return plugged_.load(std::memory_order_acquire); }
  bool isCurrent(uint32_t generation) const {
    return isPlugged() && generation == this->generation();
  }
  // USB bus address, new at every plug-in as on a real bus.
  uint8_t address() const { return address_.load(std::memory_order_acquire); }
  const UsbSocket &socket() const { return socket_; }
  // 0 until the first replug, then rising with every replug of any adapter:
  // the host lists the most recently attached device first.
  uint64_t replugOrder() const { return replugOrder_.load(std::memory_order_acquire); }

  // ModelHost (called by the model with the lock held).
  uint32_t deviceTimeUs() const override;
  void queueIn(uint8_t ep, Bytes bytes) override;
  void sendToBus(unsigned channel, const CanFrame &frame) override;

  // Transfers: 0 or a negative libusb error; *transferred is always set.
  // Frames the model sent while handling a write are appended to `toBus`.
  int write(uint32_t generation, uint8_t ep, const uint8_t *data, int len, int *transferred,
            BusFrames &toBus);
  int read(uint32_t generation, uint8_t ep, uint8_t *buf, int len, int *transferred,
           unsigned timeoutMs);
  // The same read without waiting: LIBUSB_ERROR_TIMEOUT when nothing is
  // queued (asynchronous transfers wait in the event handling instead).
  int poll(uint32_t generation, uint8_t ep, uint8_t *buf, int len, int *transferred);
  int resetDevice(uint32_t generation);
  int checkAlive(uint32_t generation) const;

  // A frame whose last bit passed at `at` reached `channel`; returns whether
  // the channel took it. The caller then tells the event handling
  // (usbEventHappened), once per frame.
  bool deliver(unsigned channel, const CanFrame &frame, BusFrames &toBus,
               std::chrono::steady_clock::time_point at);
  // The channel put a frame on the bus.
  void noteSent(unsigned channel);
  // How long a frame takes on the bus at the channel's rates.
  std::chrono::nanoseconds frameDuration(unsigned channel, const CanFrame &frame) const;
  bool isTransmitEndpoint(uint8_t ep) const { return model_->isTransmitEndpoint(ep); }

  static void setReadWaitPolicy(ReadWaitPolicy policy);
  void wakeReaders();

  void unplug();
  void replug();
  // The device clock counts from `at` (a host sharing the adapter decides).
  void setPluggedAt(std::chrono::steady_clock::time_point at);
  std::vector<ChannelState> channelStates() const;
  // The IN endpoint received frames stream on (the command replies if none).
  uint8_t streamEndpoint() const;
  void remove(); // gone for good (the test bed was reset)
  void setSilent(bool silent);
  void injectReplyFault(ReplyFault fault, uint8_t value, int count);
  void pushIn(uint8_t ep, const Bytes &bytes);
  bool streamBacklog(const std::vector<ChannelFrame> &frames, uint64_t times);
  std::vector<Bytes> written(uint8_t ep) const;
  void clearWritten();
  DeviceModel *model() { return model_.get(); }

  // Steady-clock nanoseconds at which a read on `ep` last returned data.
  int64_t lastReadEndNs(uint8_t ep) const;
  uint64_t framesSent(unsigned channel) const;
  uint64_t framesDelivered(unsigned channel) const;

private:
  struct PendingFault {
    ReplyFault fault;
    uint8_t value;
    int remaining;
  };

  uint32_t deviceTimeAt(std::chrono::steady_clock::time_point at) const;
  std::chrono::nanoseconds frameDurationLocked(unsigned channel, const CanFrame &frame) const;
  void enqueue(uint8_t ep, Bytes bytes);
  void applyReplyFault(Bytes &reply);
  int takeFromQueue(uint8_t ep, uint8_t *buf, int len);
  int serve(uint8_t ep, uint8_t *buf, int len, int *transferred);
  void clearQueues();
  void wakeAllReaders();
  void collectOutbox(BusFrames &toBus);
  void trace(const char *dir, uint8_t ep, const uint8_t *data, size_t len) const;

  const AdapterId id_;
  const int slot_;
  const unsigned devType_;
  const std::unique_ptr<DeviceModel> model_;
  const uint16_t vendorId_;
  const uint16_t productId_;
  const unsigned channelCount_;
  const bool hasUsbSerialNumber_;
  const UsbSocket socket_;

  mutable std::mutex mutex_;
  // One per IN endpoint: a reply to a command must not wake the receive
  // thread waiting on the data endpoint.
  std::array<std::condition_variable, 16> dataOrGone_;
  std::atomic<uint32_t> generation_{1};
  std::atomic<bool> plugged_{true};
  std::atomic<uint8_t> address_{0};
  std::atomic<uint64_t> replugOrder_{0};
  bool removed_ = false;
  bool silent_ = false;
  std::chrono::steady_clock::time_point pluggedAt_;
  std::array<InQueue, 16> in_;
  std::array<std::atomic<int64_t>, 16> lastServedNs_{};
  std::array<std::deque<Bytes>, 16> written_;
  std::deque<PendingFault> faults_;
  BusFrames outbox_;
  std::array<std::atomic<uint64_t>, kMaxChannels> sent_{};
  std::array<std::atomic<uint64_t>, kMaxChannels> delivered_{};
};

} // namespace wcansim
