// SPDX-License-Identifier: MIT
// The adapter side of `wcan serve`: every channel a client opened runs here,
// once for all the clients on it. The network side's event loop waits on
// each open channel's receive event and takes what is queued when it becomes
// readable (taking frames never waits on USB), so received frames reach the
// sessions without a hand-over between threads; each channel has a transmit
// thread, so a slow USB transfer never holds up the network side. Frames go
// to the network side as Deliveries, stamped with the adapter's time.
#pragma once

#include <boost/asio.hpp>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/Device.h"
#include "common/DeviceClock.h"

namespace wcantool::serve {

// "wcan41-0-1": type 41, index 0, channel 1.
struct BusAddress {
  unsigned type = 0;
  unsigned index = 0;
  unsigned channel = 0;
};
std::optional<BusAddress> parseBusName(std::string_view name);

struct TimedFrame {
  Frame frame;
  LogTime time;
};

class Channel;

// Frames that reached one bus: from the adapter (origin 0), or sent by the
// session `origin`, which the others see as sockets on one SocketCAN
// interface see each other's frames.
struct Delivery {
  std::shared_ptr<Channel> channel;
  uint64_t origin = 0;
  bool cyclic = false; // sent by the origin's cyclic transmissions
  std::vector<TimedFrame> frames;
  std::string rawText; // the frames as raw-mode elements, written once for every session
  size_t failed = 0;   // frames of `origin` the adapter did not take
  std::string failure; // why
};
// The outcome of transmissions, from a channel's transmit thread.
using DeliverySink = std::function<void(std::unique_ptr<Delivery>)>;
// Received frames, on the event loop; the delivery is only lent.
using ReceivedSink = std::function<void(const Delivery &)>;

struct BusCounters {
  uint64_t rxFrames = 0, rxBytes = 0, txFrames = 0, txBytes = 0;
};

// One started channel of an open adapter.
class Channel : public std::enable_shared_from_this<Channel> {
public:
  // `loop` waits on the channel's receive event and hands the frames to
  // `received`; the channel is started and stopped on another thread.
  Channel(const Runtime &runtime, boost::asio::io_context &loop, DeviceSession &device,
          unsigned channel, std::string name, ChannelSettings settings, DeliverySink sink,
          ReceivedSink received);
  ~Channel();
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;

  // Initialises and starts the channel and its threads; throws ToolError or
  // UsageError with the reason.
  void start();
  // Ends the threads and stops the channel. The threads of several channels
  // end side by side when each is asked first.
  void askToStop();
  void stop();
  // Ends the threads only, for an adapter about to close (which stops the
  // channel).
  void join();

  const std::string &name() const { return name_; }
  // Whether the channel carries CAN FD frames (a CAN FD adapter opened with --fd).
  bool fd() const { return settings_.fd; }
  const ChannelSettings &settings() const { return settings_; }

  // Queues frames of one session for transmission, in order; the outcome
  // comes back through the sink. Any thread.
  void transmit(uint64_t origin, bool cyclic, const std::vector<Frame> &frames);

private:
  struct TxItem {
    uint64_t origin;
    bool cyclic;
    Frame frame;
  };

  // The library owns the descriptor: it is let go, never closed, here.
  struct ReleaseDescriptor {
    void operator()(boost::asio::posix::stream_descriptor *d) const;
  };

  void awaitFrames();
  void takeQueued();
  int receive(bool fdQueue);
  void stampAndFormat(size_t first);
  void transmitLoop();
  std::vector<TxItem> nextTransmitRun();
  void deliver(uint64_t origin, bool cyclic, std::vector<TimedFrame> frames, size_t failed,
               const std::string &failure);

  const Runtime &runtime_;
  boost::asio::io_context &loop_;
  DeviceSession &device_;
  const unsigned channel_;
  const std::string name_;
  const ChannelSettings settings_;
  DeliverySink sink_;
  ReceivedSink received_;

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::deque<TxItem> txQueue_;
  std::vector<std::thread> threads_;

  // The receive side, used on the event loop while it holds rxMutex_; the
  // thread that starts and stops the channel takes it to create and let go
  // of the descriptor, so it never goes while frames are being taken.
  std::mutex rxMutex_;
  std::unique_ptr<boost::asio::posix::stream_descriptor, ReleaseDescriptor> rxEvent_;
  // The adapter's time stamps as host time, one time line for both receive
  // queues.
  DeviceClock clock_;
  // Reused from one wake-up to the next: taking frames allocates nothing
  // once they have grown.
  Delivery rxDelivery_;
  std::vector<_WCAN_CAN_OBJ> rxObjs_;
  std::vector<_WCAN_CANFD_OBJ> rxFdObjs_;
  std::vector<uint32_t> rxCounters_;
  std::vector<int64_t> rxTimes_;
};

// The open adapters and their started channels. All calls come from one
// thread (the server's device thread).
class BusHub {
public:
  // `loop` is where the channels' frames are received (see Channel).
  BusHub(const Runtime &runtime, boost::asio::io_context &loop, ChannelSettings settings,
         DeliverySink sink, ReceivedSink received);
  ~BusHub();
  BusHub(const BusHub &) = delete;
  BusHub &operator=(const BusHub &) = delete;

  // The running channel behind a bus name, opened and started on first use;
  // null with the reason when it cannot be. A channel started here runs with
  // `settings` when given, else with the server's.
  std::shared_ptr<Channel> acquire(const std::string &busName, std::string &why,
                                   const ChannelSettings *settings = nullptr);
  // One user fewer; the last stops the channel, and the adapter closes with
  // its last channel.
  void release(const std::shared_ptr<Channel> &channel);
  // Stops every channel and closes every adapter.
  void closeAll();
  // The buses a client may open; empty with the reason when the attached
  // adapters cannot be listed.
  std::vector<std::string> busesOnOffer(std::string &why) const;

private:
  // Types that share USB ids name the same adapter.
  struct AdapterKey {
    uint16_t vendorId, productId;
    unsigned index;
    bool operator<(const AdapterKey &o) const;
  };
  struct OpenChannel {
    std::shared_ptr<Channel> channel;
    unsigned users = 0;
  };
  struct OpenAdapter {
    std::unique_ptr<DeviceSession> device;
    std::map<unsigned, OpenChannel> channels;
  };

  OpenAdapter &openAdapter(const AdapterKey &key, const DeviceType &type, unsigned index);
  void closeAdapter(const AdapterKey &key);
  std::string busesOnOfferText() const;
  std::shared_ptr<Channel> startChannel(OpenAdapter &adapter, const BusAddress &bus,
                                        const std::string &busName, ChannelSettings settings);

  const Runtime &runtime_;
  boost::asio::io_context &loop_;
  const ChannelSettings settings_;
  DeliverySink sink_;
  ReceivedSink received_;
  std::map<AdapterKey, OpenAdapter> adapters_;
};

// Checks the server's bit rates against every adapter family once at start;
// throws UsageError when no family can use them.
void checkServeSettings(const ChannelSettings &settings);

} // namespace wcantool::serve
