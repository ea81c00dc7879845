// SPDX-License-Identifier: MIT
#include "server/Bus.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <tuple>

#include "common/Adapters.h"
#include "common/Args.h"
#include "net/Protocol.h"

namespace wcantool::serve {
namespace {

// Records taken from a receive queue per call.
constexpr unsigned kRxBatch = 256;
// Frames of one session handed to the library in one call.
constexpr size_t kTxBatch = 64;
bool takeNumber(std::string_view &text, unsigned &out) {
  size_t n = 0;
  out = 0;
  while (n < text.size() && n < 6 && text[n] >= '0' && text[n] <= '9')
    out = out * 10 + static_cast<unsigned>(text[n++] - '0');
  text.remove_prefix(n);
  return n > 0;
}

// "wcan66-0-3 rx": the channel and the thread's job, for top -H and debuggers.
void nameThisThread(const std::string &channel, const char *job) {
  const std::string name = (channel + " " + job).substr(0, 15);
  pthread_setname_np(pthread_self(), name.c_str());
}

bool takeChar(std::string_view &text, char c) {
  if (text.empty() || text.front() != c)
    return false;
  text.remove_prefix(1);
  return true;
}

} // namespace

std::optional<BusAddress> parseBusName(std::string_view name) {
  const std::string_view prefix = "wcan";
  if (name.substr(0, prefix.size()) != prefix)
    return std::nullopt;
  std::string_view rest = name.substr(prefix.size());
  BusAddress a;
  if (!takeNumber(rest, a.type) || !takeChar(rest, '-') || !takeNumber(rest, a.index) ||
      !takeChar(rest, '-') || !takeNumber(rest, a.channel) || !rest.empty())
    return std::nullopt;
  // One spelling per bus: no leading zeros.
  if (interfaceName(a.type, a.index, a.channel) != name)
    return std::nullopt;
  return a;
}

Channel::Channel(const Runtime &runtime, boost::asio::io_context &loop, DeviceSession &device,
                 unsigned channel, std::string name, ChannelSettings settings, DeliverySink sink,
                 ReceivedSink received)
    : runtime_(runtime), loop_(loop), device_(device), channel_(channel), name_(std::move(name)),
      settings_(settings), sink_(std::move(sink)), received_(std::move(received)),
      clock_(device.type().counterBits), rxObjs_(kRxBatch), rxFdObjs_(kRxBatch),
      rxCounters_(kRxBatch), rxTimes_(kRxBatch) {}

Channel::~Channel() { join(); }

void Channel::ReleaseDescriptor::operator()(boost::asio::posix::stream_descriptor *d) const {
  boost::system::error_code ignored;
  d->cancel(ignored);
  d->release();
  delete d;
}

void Channel::start() {
  device_.startChannel(channel_, settings_);
  const int event =
      runtime_.wcan().WCAN_GetReceiveEvent(device_.type().type, device_.index(), channel_);
  if (event < 0)
    throw ToolError{"the receive event of " + name_ + " is not available: " + runtime_.lastError()};
  {
    std::lock_guard<std::mutex> lock(rxMutex_);
    clock_.restart();
    rxEvent_.reset(new boost::asio::posix::stream_descriptor(loop_, event));
    awaitFrames();
  }
  threads_.emplace_back([this] { transmitLoop(); });
}

// The event is readable while frames are queued; once they are taken it is
// waited on again. Stopping the channel lets the descriptor go, which ends
// the wait without a call here. Called with rxMutex_ held.
void Channel::awaitFrames() {
  rxEvent_->async_wait(boost::asio::posix::stream_descriptor::wait_read,
                       [weak = weak_from_this()](const boost::system::error_code &error) {
                         const std::shared_ptr<Channel> self = weak.lock();
                         if (error || !self)
                           return;
                         std::lock_guard<std::mutex> lock(self->rxMutex_);
                         if (!self->rxEvent_)
                           return;
                         self->takeQueued();
                         self->awaitFrames();
                       });
}

// Everything queued, both queues, goes to the sessions as one delivery: one
// write per session for each wake-up.
void Channel::takeQueued() {
  rxDelivery_.frames.clear();
  rxDelivery_.rawText.clear();
  const bool fdAdapter = device_.type().family == Family::CanFd;
  for (const bool fdQueue : {false, true}) {
    if (fdQueue && !fdAdapter)
      break;
    while (receive(fdQueue) == static_cast<int>(kRxBatch)) {
    }
  }
  if (rxDelivery_.frames.empty())
    return;
  rxDelivery_.channel = shared_from_this();
  received_(rxDelivery_);
  rxDelivery_.channel.reset();
}

void Channel::askToStop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
}

void Channel::join() {
  if (threads_.empty())
    return;
  askToStop();
  for (std::thread &t : threads_)
    t.join();
  threads_.clear();
  std::fprintf(stderr, "wcan serve: stopped %s\n", name_.c_str());
}

// Stopping the channel in the library ends its readers' waits at once; the
// bounded wait only covers a reader that was between two waits then.
void Channel::stop() {
  {
    std::lock_guard<std::mutex> lock(rxMutex_);
    rxEvent_.reset();
  }
  if (threads_.empty())
    return;
  askToStop();
  runtime_.wcan().WCAN_Stop(device_.type().type, device_.index(), channel_);
  join();
}

void Channel::transmit(uint64_t origin, bool cyclic, const std::vector<Frame> &frames) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Frame &f : frames)
      txQueue_.push_back({origin, cyclic, f});
  }
  wake_.notify_all();
}

// What is queued, without waiting, added to the delivery being gathered.
int Channel::receive(bool fdQueue) {
  const WcanApi &api = runtime_.wcan();
  const unsigned type = device_.type().type;
  const size_t first = rxDelivery_.frames.size();
  int n = 0;
  if (fdQueue) {
    n = api.WCAN_ReceiveFD(type, device_.index(), channel_, rxFdObjs_.data(), kRxBatch, 0);
    for (int i = 0; i < n; ++i) {
      rxDelivery_.frames.push_back({fromCanFdObj(rxFdObjs_[i]), {}});
      rxCounters_[i] = rxFdObjs_[i].timeStamp;
    }
  } else {
    n = api.WCAN_Receive(type, device_.index(), channel_, rxObjs_.data(), kRxBatch, 0);
    for (int i = 0; i < n; ++i) {
      rxDelivery_.frames.push_back({fromCanObj(rxObjs_[i]), {}});
      rxCounters_[i] = rxObjs_[i].timeStamp;
    }
  }
  if (n > 0)
    stampAndFormat(first);
  return n;
}

// The adapter's time stamps, not the time the loop woke: a batch keeps the
// spacing the frames had on the bus (see DeviceClock). The raw-mode text is
// written once here for every session on the bus.
void Channel::stampAndFormat(size_t first) {
  std::vector<TimedFrame> &frames = rxDelivery_.frames;
  const size_t n = frames.size() - first;
  clock_.toEpochUs(rxCounters_.data(), n, hostEpochUs(), rxTimes_.data());
  for (size_t i = 0; i < n; ++i) {
    TimedFrame &f = frames[first + i];
    f.time = logTimeOf(rxTimes_[i]);
    net::appendRawFrame(rxDelivery_.rawText, f.time, f.frame);
  }
}

std::vector<Channel::TxItem> Channel::nextTransmitRun() {
  std::unique_lock<std::mutex> lock(mutex_);
  wake_.wait(lock, [this] { return stopping_ || !txQueue_.empty(); });
  std::vector<TxItem> run;
  if (stopping_)
    return run;
  const uint64_t origin = txQueue_.front().origin;
  const bool cyclic = txQueue_.front().cyclic;
  while (!txQueue_.empty() && run.size() < kTxBatch && txQueue_.front().origin == origin &&
         txQueue_.front().cyclic == cyclic) {
    run.push_back(txQueue_.front());
    txQueue_.pop_front();
  }
  return run;
}

void Channel::transmitLoop() {
  nameThisThread(name_, "tx");
  for (;;) {
    std::vector<TxItem> run = nextTransmitRun();
    if (run.empty())
      return;
    std::vector<Frame> frames;
    frames.reserve(run.size());
    for (const TxItem &item : run)
      frames.push_back(item.frame);
    size_t sent = 0;
    std::string failure;
    try {
      sent = device_.send(channel_, frames);
      if (sent < frames.size())
        failure = "the adapter did not take the frame: " + runtime_.lastError();
    } catch (const UsageError &e) {
      failure = e.message;
    }
    const LogTime now = logTimeNow();
    std::vector<TimedFrame> echoed;
    echoed.reserve(sent);
    for (size_t i = 0; i < sent; ++i)
      echoed.push_back({frames[i], now});
    if (!failure.empty())
      std::fprintf(stderr, "wcan serve: %s: %s\n", name_.c_str(), failure.c_str());
    deliver(run.front().origin, run.front().cyclic, std::move(echoed), frames.size() - sent,
            failure);
  }
}

void Channel::deliver(uint64_t origin, bool cyclic, std::vector<TimedFrame> frames, size_t failed,
                      const std::string &failure) {
  auto d = std::make_unique<Delivery>();
  d->channel = shared_from_this();
  d->origin = origin;
  d->cyclic = cyclic;
  d->failed = failed;
  if (failed > 0)
    d->failure = "could not send " + std::to_string(failed) + " frame" + (failed == 1 ? "" : "s") +
                 ": " + failure;
  d->rawText.reserve(frames.size() * 48);
  for (const TimedFrame &f : frames)
    net::appendRawFrame(d->rawText, f.time, f.frame);
  d->frames = std::move(frames);
  sink_(std::move(d));
}

bool BusHub::AdapterKey::operator<(const AdapterKey &o) const {
  return std::tie(vendorId, productId, index) < std::tie(o.vendorId, o.productId, o.index);
}

BusHub::BusHub(const Runtime &runtime, boost::asio::io_context &loop, ChannelSettings settings,
               DeliverySink sink, ReceivedSink received)
    : runtime_(runtime), loop_(loop), settings_(settings), sink_(std::move(sink)),
      received_(std::move(received)) {}

BusHub::~BusHub() { closeAll(); }

std::shared_ptr<Channel> BusHub::acquire(const std::string &busName, std::string &why,
                                         const ChannelSettings *settings) {
  const std::optional<BusAddress> bus = parseBusName(busName);
  const DeviceType *type = bus ? findDeviceType(bus->type) : nullptr;
  if (!type) {
    why = "'" + busName + "' names no bus (wcan41-0-1 is type 41, index 0, channel 1); " +
          busesOnOfferText();
    return nullptr;
  }
  const AdapterKey key{type->vendorId, type->productId, bus->index};
  try {
    OpenAdapter &adapter = openAdapter(key, *type, bus->index);
    OpenChannel &open = adapter.channels[bus->channel];
    if (!open.channel) {
      try {
        open.channel = startChannel(adapter, *bus, busName, settings ? *settings : settings_);
      } catch (...) {
        adapter.channels.erase(bus->channel);
        if (adapter.channels.empty())
          closeAdapter(key);
        throw;
      }
    }
    ++open.users;
    return open.channel;
  } catch (const ToolError &e) {
    why = e.message;
  } catch (const UsageError &e) {
    why = e.message;
  }
  why += "; " + busesOnOfferText();
  return nullptr;
}

// What a client that named a bus the server cannot open may use instead.
std::string BusHub::busesOnOfferText() const {
  try {
    return "this server has " + attachedBusNames(runtime_);
  } catch (const ToolError &e) {
    return "the attached adapters are unknown: " + e.message;
  }
}

std::vector<std::string> BusHub::busesOnOffer(std::string &why) const {
  try {
    return attachedBuses(runtime_);
  } catch (const ToolError &e) {
    why = "the attached adapters are unknown: " + e.message;
    return {};
  }
}

BusHub::OpenAdapter &BusHub::openAdapter(const AdapterKey &key, const DeviceType &type,
                                         unsigned index) {
  auto it = adapters_.find(key);
  if (it != adapters_.end())
    return it->second;
  if (type.family == Family::Recorder)
    throw UsageError{"a CAN recorder carries no traffic for the host"};
  OpenAdapter adapter;
  adapter.device = std::make_unique<DeviceSession>(runtime_, type.type, index);
  std::fprintf(stderr, "wcan serve: opened adapter %s\n", adapter.device->name().c_str());
  return adapters_.emplace(key, std::move(adapter)).first->second;
}

void BusHub::closeAdapter(const AdapterKey &key) {
  auto it = adapters_.find(key);
  if (it == adapters_.end())
    return;
  OpenAdapter &adapter = it->second;
  const std::string name = adapter.device->name();
  // The channels' threads use the adapter until they end; closing it stops
  // the channels.
  for (auto &c : adapter.channels)
    c.second.channel->stop();
  adapters_.erase(it);
  std::fprintf(stderr, "wcan serve: closed adapter %s\n", name.c_str());
}

std::shared_ptr<Channel> BusHub::startChannel(OpenAdapter &adapter, const BusAddress &bus,
                                              const std::string &busName,
                                              ChannelSettings settings) {
  // --fd asks for CAN FD where the adapter has it; classic adapters ignore it.
  if (adapter.device->type().family != Family::CanFd)
    settings.fd = false;
  checkChannelUse(adapter.device->type(), bus.channel, settings);
  auto channel = std::make_shared<Channel>(runtime_, loop_, *adapter.device, bus.channel, busName,
                                           settings, sink_, received_);
  channel->start();
  std::fprintf(stderr, "wcan serve: started %s\n", busName.c_str());
  return channel;
}

void BusHub::release(const std::shared_ptr<Channel> &channel) {
  for (auto a = adapters_.begin(); a != adapters_.end(); ++a) {
    auto &channels = a->second.channels;
    for (auto c = channels.begin(); c != channels.end(); ++c) {
      if (c->second.channel != channel)
        continue;
      if (--c->second.users > 0)
        return;
      if (channels.size() == 1) {
        closeAdapter(a->first);
        return;
      }
      channel->stop();
      channels.erase(c);
      return;
    }
  }
}

void BusHub::closeAll() {
  for (auto &a : adapters_)
    for (auto &c : a.second.channels)
      c.second.channel->askToStop();
  while (!adapters_.empty())
    closeAdapter(adapters_.begin()->first);
}

void checkServeSettings(const ChannelSettings &settings) {
  bool fdUsable =
      isFdArbitrationRate(settings.bitRate) && (!settings.fd || isFdDataRate(settings.dataBitRate));
  bool classicUsable = classicTimingFor(settings.bitRate).has_value();
  if (!fdUsable && !classicUsable)
    throw UsageError{"bit rate " + std::to_string(settings.bitRate) +
                     " suits no adapter (CAN FD adapters: " + fdArbitrationRatesText() +
                     "; classic adapters: " + classicRatesText() + ")"};
  if (settings.fd && !isFdDataRate(settings.dataBitRate))
    throw UsageError{"data bit rate " + std::to_string(settings.dataBitRate) +
                     " is not available on the CAN FD adapter (" + fdDataRatesText() + ")"};
}

} // namespace wcantool::serve
