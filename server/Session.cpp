// SPDX-License-Identifier: MIT
#include "server/Session.h"

#include <cstdio>

#include "server/Server.h"

namespace wcantool::serve {
namespace {

// Frames a session may have queued for transmission before its requests wait.
constexpr size_t kMaxOutstanding = 256;
// The kernel's share of a client's unread output (Linux doubles it for its
// bookkeeping): without a bound, the send buffer grows to megabytes before
// the session notices a client that does not read.
constexpr int kKernelSendBuffer = 128 * 1024;
// What one client may ask of the broadcast manager: no CAN bus carries more
// than about 25,000 frames/s, so more cyclic frames than that only load the
// server.
constexpr size_t kMaxCycles = 256;
constexpr double kMaxCyclicFramesPerSecond = 50000;
constexpr size_t kMaxSubscriptions = 4096;
// How long a closing session waits for its last words to be read.
constexpr auto kLinger = std::chrono::seconds(2);

const char *modeName(net::Verb verb) {
  switch (verb) {
  case net::Verb::RawMode:
    return "raw";
  case net::Verb::ControlMode:
    return "control";
  default:
    return "bcm";
  }
}

std::chrono::microseconds micros(uint64_t us) {
  return std::chrono::microseconds(static_cast<std::chrono::microseconds::rep>(us));
}

} // namespace

Session::Session(Server &server, boost::asio::ip::tcp::socket socket, uint64_t id)
    : server_(server), socket_(std::move(socket)), id_(id), outputLimit_(server.clientBuffer()),
      lingerTimer_(socket_.get_executor()), statsTimer_(socket_.get_executor()) {
  boost::system::error_code ec;
  const auto remote = socket_.remote_endpoint(ec);
  peer_ = ec ? "?" : remote.address().to_string() + ":" + std::to_string(remote.port());
  socket_.set_option(boost::asio::ip::tcp::no_delay(true), ec);
  socket_.set_option(boost::asio::socket_base::send_buffer_size(kKernelSendBuffer), ec);
  // Output is first sent at once (see startWrite); the loop waits only on
  // what the kernel would not take.
  socket_.non_blocking(true, ec);
}

Session::~Session() = default;

void Session::start() {
  std::fprintf(stderr, "wcan serve: session %llu from %s\n", static_cast<unsigned long long>(id_),
               peer_.c_str());
  reply("hi");
  processInput();
}

void Session::close() {
  if (closed_)
    return;
  auto self = shared_from_this();
  closed_ = true;
  boost::system::error_code ignored;
  socket_.close(ignored);
  lingerTimer_.cancel();
  statsTimer_.cancel();
  cycles_.clear();
  subscriptions_.clear();
  if (channel_) {
    server_.leaveBus(*this, channel_);
    channel_.reset();
  }
  std::fprintf(stderr, "wcan serve: session %llu ended%s\n", static_cast<unsigned long long>(id_),
               missed_ ? (", " + std::to_string(missed_) + " frames missed").c_str() : "");
  server_.forget(id_);
}

// --- input -----------------------------------------------------------------

bool Session::inputBlocked() const {
  return closed_ || closing_ || mode_ == Mode::Opening || echoHeld_ || listingBuses_ ||
         sendsOutstanding_ >= kMaxOutstanding || queuedOutput() > outputLimit_;
}

void Session::processInput() {
  net::ElementReader::Item item;
  while (!inputBlocked()) {
    if (!reader_.next(item)) {
      readMore();
      return;
    }
    handleItem(item);
  }
}

void Session::readMore() {
  if (reading_ || closed_)
    return;
  reading_ = true;
  socket_.async_read_some(boost::asio::buffer(readBuffer_),
                          [self = shared_from_this()](boost::system::error_code ec, size_t n) {
                            self->reading_ = false;
                            if (self->closed_)
                              return;
                            if (ec) {
                              self->close();
                              return;
                            }
                            self->reader_.feed(self->readBuffer_.data(), n);
                            self->processInput();
                          });
}

void Session::handleItem(const net::ElementReader::Item &item) {
  using Kind = net::ElementReader::Kind;
  if (item.kind == Kind::Broken) {
    std::fprintf(stderr, "wcan serve: session %llu sent %s; closing it\n",
                 static_cast<unsigned long long>(id_), item.text.c_str());
    replyError(item.text);
    closeAfterWrite();
    return;
  }
  if (item.kind == Kind::Stray) {
    replyError("text outside an element: '" + item.text.substr(0, 40) + "'");
    return;
  }
  net::Request request;
  std::string why;
  if (!net::parseRequest(item.text, request, why)) {
    replyError(why);
    return;
  }
  if (!allowedInMode(request.verb, why)) {
    replyError(why);
    return;
  }
  handleRequest(request);
}

bool Session::allowedInMode(net::Verb verb, std::string &why) const {
  using net::Verb;
  switch (verb) {
  case Verb::Echo:
    return true;
  case Verb::Open:
  case Verb::Buses:
    if (mode_ == Mode::NoBus)
      return true;
    why = "a bus is open already";
    return false;
  default:
    break;
  }
  if (mode_ == Mode::NoBus) {
    why = "open a bus first";
    return false;
  }
  switch (verb) {
  case Verb::RawMode:
  case Verb::BcmMode:
  case Verb::ControlMode:
  case Verb::IsoTpMode:
    return true;
  case Verb::Send:
    if (mode_ == Mode::Raw || mode_ == Mode::Bcm)
      return true;
    why = "sending needs raw or bcm mode";
    return false;
  case Verb::Statistics:
    if (mode_ == Mode::Control)
      return true;
    why = "statistics needs control mode";
    return false;
  default:
    if (mode_ == Mode::Bcm)
      return true;
    why = "this request needs bcm mode";
    return false;
  }
}

void Session::handleRequest(const net::Request &request) {
  using net::Verb;
  switch (request.verb) {
  case Verb::Open:
    mode_ = Mode::Opening;
    if (request.bus.size() > net::kMaxBusName)
      busOpened(nullptr,
                "bus names have at most " + std::to_string(net::kMaxBusName) + " characters");
    else
      server_.openBus(shared_from_this(), request.bus);
    return;
  case Verb::Buses:
    listingBuses_ = true;
    server_.listBuses(shared_from_this());
    return;
  case Verb::Echo:
    // Answered once everything sent before it has reached the adapter.
    if (sendsOutstanding_ > 0)
      echoHeld_ = true;
    else
      reply("echo");
    return;
  case Verb::RawMode:
  case Verb::BcmMode:
  case Verb::ControlMode:
  case Verb::IsoTpMode:
    handleModeRequest(request);
    return;
  case Verb::Send:
    handleSend(request.frame);
    return;
  case Verb::Statistics:
    statsInterval_ = micros(request.intervalUs);
    statsTimer_.cancel();
    if (request.intervalUs > 0)
      armStatistics();
    return;
  default:
    handleBcmRequest(request);
    return;
  }
}

void Session::handleModeRequest(const net::Request &request) {
  if (request.verb == net::Verb::IsoTpMode) {
    replyError("ISO-TP mode is not available");
    return;
  }
  const Mode next = request.verb == net::Verb::RawMode       ? Mode::Raw
                    : request.verb == net::Verb::ControlMode ? Mode::Control
                                                             : Mode::Bcm;
  // Leaving bcm mode ends its cyclic transmissions and subscriptions.
  if (mode_ == Mode::Bcm && next != Mode::Bcm)
    leaveBcmMode();
  mode_ = next;
  std::fprintf(stderr, "wcan serve: session %llu in %s mode\n",
               static_cast<unsigned long long>(id_), modeName(request.verb));
  reply("ok");
}

void Session::handleSend(const Frame &frame) {
  if (frame.fd && !channel_->fd()) {
    replyError("CAN FD frames need a CAN FD adapter and a server started with --fd");
    return;
  }
  ++sendsOutstanding_;
  channel_->transmit(id_, false, {frame});
}

void Session::handleBcmRequest(const net::Request &request) {
  using net::Verb;
  const uint32_t key = keyOf(request.frame);
  switch (request.verb) {
  case Verb::Add:
    addCycle(request);
    return;
  case Verb::Update: {
    auto it = cycles_.find(key);
    if (it == cycles_.end()) {
      replyError("no cyclic transmission of this id");
      return;
    }
    it->second->frame = request.frame;
    return;
  }
  case Verb::Delete:
    if (cycles_.erase(key) == 0)
      replyError("no cyclic transmission of this id");
    return;
  case Verb::Subscribe:
  case Verb::Filter:
    subscribe(request);
    return;
  case Verb::Unsubscribe:
    if (subscriptions_.erase(key) == 0)
      replyError("no subscription of this id");
    return;
  default:
    return;
  }
}

// --- bus -------------------------------------------------------------------

void Session::busOpened(std::shared_ptr<Channel> channel, const std::string &why) {
  if (!channel) {
    std::fprintf(stderr, "wcan serve: session %llu could not open the bus: %s\n",
                 static_cast<unsigned long long>(id_), why.c_str());
    mode_ = Mode::NoBus;
    replyError("could not open bus: " + why);
    closeAfterWrite();
    return;
  }
  channel_ = std::move(channel);
  mode_ = Mode::Bcm;
  std::fprintf(stderr, "wcan serve: session %llu opened %s\n", static_cast<unsigned long long>(id_),
               channel_->name().c_str());
  reply("ok");
  processInput();
}

void Session::busesListed(const std::vector<std::string> &buses, const std::string &why) {
  listingBuses_ = false;
  if (!why.empty()) {
    replyError(why);
  } else {
    std::string text = "buses";
    for (const std::string &b : buses)
      text += " " + b;
    reply(text);
  }
  processInput();
}

void Session::receive(const Delivery &delivery) {
  if (closed_ || closing_)
    return;
  if (mode_ == Mode::Raw) {
    writeBounded(delivery.rawText, delivery.frames.size());
  } else if (mode_ == Mode::Bcm && !subscriptions_.empty()) {
    for (const TimedFrame &f : delivery.frames)
      forwardSubscribed(f);
  }
}

void Session::transmitted(const Delivery &d) {
  if (closed_)
    return;
  size_t &outstanding = d.cyclic ? cyclesOutstanding_ : sendsOutstanding_;
  outstanding -= std::min(outstanding, d.frames.size() + d.failed);
  if (d.failed > 0)
    writeBounded(net::errorElement(d.failure), 0);
  if (echoHeld_ && sendsOutstanding_ == 0) {
    echoHeld_ = false;
    reply("echo");
  }
  processInput();
}

// --- broadcast manager -----------------------------------------------------

uint32_t Session::keyOf(const Frame &frame) {
  return frame.id | (frame.extended ? 0x80000000u : 0u);
}

double Session::cyclicFramesPerSecond(uint32_t except) const {
  double rate = 0;
  for (const auto &c : cycles_)
    if (c.first != except)
      rate += 1.0 / std::chrono::duration<double>(c.second->interval).count();
  return rate;
}

void Session::addCycle(const net::Request &request) {
  const uint32_t key = keyOf(request.frame);
  if (cycles_.count(key) == 0 && cycles_.size() >= kMaxCycles) {
    replyError("at most " + std::to_string(kMaxCycles) + " cyclic transmissions per client");
    return;
  }
  if (cyclicFramesPerSecond(key) + 1e6 / static_cast<double>(request.intervalUs) >
      kMaxCyclicFramesPerSecond) {
    replyError("cyclic transmissions of one client add up to at most " +
               std::to_string(static_cast<int>(kMaxCyclicFramesPerSecond)) + " frames/s");
    return;
  }
  auto &slot = cycles_[key];
  // A new add of the same id replaces the old transmission.
  slot = std::make_unique<Cycle>(Cycle{request.frame, micros(request.intervalUs),
                                       boost::asio::steady_timer(socket_.get_executor())});
  slot->timer.expires_after(Clock::duration::zero());
  armCycle(slot.get(), key);
}

void Session::armCycle(Cycle *cycle, uint32_t key) {
  cycle->timer.async_wait([self = shared_from_this(), cycle, key](boost::system::error_code ec) {
    auto it = self->cycles_.find(key);
    if (ec || self->closed_ || it == self->cycles_.end() || it->second.get() != cycle)
      return;
    // A session that cannot keep up skips cycles rather than queueing them.
    if (self->cyclesOutstanding_ < kMaxOutstanding) {
      ++self->cyclesOutstanding_;
      self->channel_->transmit(self->id_, true, {cycle->frame});
    }
    const auto now = Clock::now();
    auto next = cycle->timer.expiry() + cycle->interval;
    if (next < now)
      next = now + cycle->interval;
    cycle->timer.expires_at(next);
    self->armCycle(cycle, key);
  });
}

void Session::subscribe(const net::Request &request) {
  const uint32_t key = keyOf(request.frame);
  if (subscriptions_.count(key) == 0 && subscriptions_.size() >= kMaxSubscriptions) {
    replyError("at most " + std::to_string(kMaxSubscriptions) + " subscriptions per client");
    return;
  }
  auto sub = std::make_unique<Subscription>(
      Subscription{micros(request.intervalUs),
                   std::nullopt,
                   std::nullopt,
                   {},
                   false,
                   std::nullopt,
                   boost::asio::steady_timer(socket_.get_executor())});
  if (request.verb == net::Verb::Filter)
    sub->mask = request.frame;
  subscriptions_[key] = std::move(sub);
}

void Session::forwardSubscribed(const TimedFrame &f) {
  if (f.frame.fd || f.frame.remote)
    return;
  auto it = subscriptions_.find(keyOf(f.frame));
  if (it == subscriptions_.end())
    return;
  Subscription &sub = *it->second;
  if (sub.mask) {
    // Forward what changed in the masked bytes or in length.
    bool changed = !sub.last || sub.last->len != f.frame.len;
    for (unsigned i = 0; !changed && i < sub.mask->len && i < f.frame.len; ++i)
      changed = ((sub.last->data[i] ^ f.frame.data[i]) & sub.mask->data[i]) != 0;
    sub.last = f.frame;
    if (!changed)
      return;
  }
  const auto now = Clock::now();
  if (sub.interval == Clock::duration::zero() || !sub.forwarded ||
      now - sub.lastForward >= sub.interval) {
    forward(sub, f);
    return;
  }
  // Throttled: the newest frame goes out when the interval ends.
  const bool armed = sub.held.has_value();
  sub.held = f;
  if (armed)
    return;
  const uint32_t key = it->first;
  Subscription *target = &sub;
  sub.timer.expires_at(sub.lastForward + sub.interval);
  sub.timer.async_wait([self = shared_from_this(), key, target](boost::system::error_code ec) {
    auto it = self->subscriptions_.find(key);
    if (ec || self->closed_ || it == self->subscriptions_.end() || it->second.get() != target ||
        !target->held)
      return;
    TimedFrame held = *target->held;
    target->held.reset();
    self->forward(*target, held);
  });
}

void Session::forward(Subscription &sub, const TimedFrame &frame) {
  sub.forwarded = true;
  sub.lastForward = Clock::now();
  std::string text;
  net::appendBcmFrame(text, frame.time, frame.frame);
  writeBounded(text, 1);
}

void Session::leaveBcmMode() {
  cycles_.clear();
  subscriptions_.clear();
}

// --- statistics ------------------------------------------------------------

void Session::armStatistics() {
  statsTimer_.expires_after(statsInterval_);
  statsTimer_.async_wait([self = shared_from_this()](boost::system::error_code ec) {
    if (ec || self->closed_ || !self->channel_)
      return;
    const BusCounters &c = self->server_.counters(self->channel_.get());
    // The bus's counters as an interface counts them, then what this client missed.
    const std::string text = "stat " + std::to_string(c.rxBytes) + " " +
                             std::to_string(c.rxFrames) + " " + std::to_string(c.txBytes) + " " +
                             std::to_string(c.txFrames) + " " + std::to_string(self->missed_);
    self->writeBounded(net::element(text), 0);
    self->armStatistics();
  });
}

// --- output ----------------------------------------------------------------

void Session::reply(std::string_view text) {
  pending_ += net::element(text);
  startWrite();
}

void Session::replyError(std::string_view reason) {
  pending_ += net::errorElement(reason);
  startWrite();
}

bool Session::writeBounded(std::string_view text, size_t frames) {
  if (queuedOutput() + text.size() > outputLimit_) {
    if (missedInRun_ == 0 && frames > 0)
      std::fprintf(stderr, "wcan serve: session %llu does not read: dropping its frames\n",
                   static_cast<unsigned long long>(id_));
    missed_ += frames;
    missedInRun_ += frames;
    return false;
  }
  if (missedInRun_ > 0) {
    std::fprintf(stderr, "wcan serve: session %llu reads again; it missed %llu frames\n",
                 static_cast<unsigned long long>(id_),
                 static_cast<unsigned long long>(missedInRun_));
    missedInRun_ = 0;
  }
  pending_.append(text);
  flushAtEndOfRound();
  return true;
}

// Bus output is sent once the loop has handled every event of this round:
// frames of several channels, echoes and errors that reach the session in
// one round go in one send, and nothing waits for a later round.
void Session::flushAtEndOfRound() {
  if (flushPosted_ || writeInFlight_ || closed_)
    return;
  flushPosted_ = true;
  boost::asio::post(socket_.get_executor(), [self = shared_from_this()] {
    self->flushPosted_ = false;
    self->startWrite();
    if (self->closed_ || self->writeInFlight_)
      return;
    if (self->closing_ && self->pending_.empty())
      return self->close();
    self->processInput();
  });
}

// What the kernel takes at once needs no completion handler, a second run
// of the loop per send; only the rest is left to an asynchronous write.
void Session::startWrite() {
  if (writeInFlight_ || pending_.empty() || closed_)
    return;
  boost::system::error_code error;
  const size_t sent = socket_.write_some(boost::asio::buffer(pending_), error);
  if (!error && sent == pending_.size()) {
    pending_.clear();
    return;
  }
  // A failure other than a full send buffer shows again in the asynchronous
  // write, which closes the session.
  writing_.assign(pending_, error ? 0 : sent, std::string::npos);
  pending_.clear();
  writeInFlight_ = true;
  boost::asio::async_write(socket_, boost::asio::buffer(writing_),
                           [self = shared_from_this()](boost::system::error_code ec, size_t) {
                             self->writeInFlight_ = false;
                             if (self->closed_)
                               return;
                             if (ec) {
                               self->close();
                               return;
                             }
                             self->writing_.clear();
                             if (self->closing_ && self->pending_.empty()) {
                               self->close();
                               return;
                             }
                             self->startWrite();
                             self->processInput();
                           });
}

void Session::closeAfterWrite() {
  if (closing_)
    return;
  closing_ = true;
  if (!writeInFlight_ && pending_.empty()) {
    // Leave the event loop's current handler before the session goes.
    boost::asio::post(socket_.get_executor(), [self = shared_from_this()] { self->close(); });
    return;
  }
  lingerTimer_.expires_after(kLinger);
  lingerTimer_.async_wait([self = shared_from_this()](boost::system::error_code ec) {
    if (!ec)
      self->close();
  });
}

} // namespace wcantool::serve
