// SPDX-License-Identifier: MIT
#include "SimShared.h"

#include <dlfcn.h>
#include <libusb-1.0/libusb.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "PacedBus.h"
#include "SimEvents.h"
#include "SimTestbed.h"

extern char **environ;

namespace wcansim {

namespace {

using Clock = std::chrono::steady_clock;
using wire::Reader;
using wire::Rec;
using wire::Writer;

Clock::time_point timeOf(int64_t ns) { return Clock::time_point(std::chrono::nanoseconds(ns)); }

// The host program: WCAN_SIM_HOST, else beside this library (build tree)
// or in its wcan folder (installed).
std::string hostProgram() {
  if (const char *path = std::getenv("WCAN_SIM_HOST"); path != nullptr && *path != '\0')
    return path;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void *>(&wcan_sim_plug_in), &info) == 0 || info.dli_fname == nullptr)
    return {};
  std::string dir(info.dli_fname);
  const size_t slash = dir.rfind('/');
  dir = slash == std::string::npos ? "." : dir.substr(0, slash);
  for (const char *candidate : {"/wcan-simhost", "/wcan/wcan-simhost"})
    if (access((dir + candidate).c_str(), X_OK) == 0)
      return dir + candidate;
  return {};
}

// Runs the host program, which returns once its socket listens (or another
// host holds the user's lock).
bool startHost(std::string &error) {
  const std::string program = hostProgram();
  if (program.empty()) {
    error = "the simulation host program wcan-simhost is not installed beside libwcan-sim.so";
    return false;
  }
  char *argv[] = {const_cast<char *>(program.c_str()), nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ) != 0) {
    error = "cannot start " + program + ": " + std::strerror(errno);
    return false;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return true;
}

// A connection to the user's host, starting one when none listens. A host
// that is just ending refuses for a moment: asked again shortly.
int connectOrStart(std::string &error) {
  const auto dir = wire::runtimeDir(error);
  if (!dir)
    return -1;
  const std::string path = wire::socketPath(*dir);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const int fd = wire::connectTo(path);
    if (fd >= 0)
      return fd;
    if (errno != ENOENT && errno != ECONNREFUSED) {
      error = "cannot reach the simulation host at " + path + ": " + std::strerror(errno);
      return -1;
    }
    if (attempt % 10 == 0 && !startHost(error))
      return -1;
    usleep(20000);
  }
  error = "no simulation host came up at " + path;
  return -1;
}

void writeHello(Writer &w, const std::string &spec) {
  w.begin(Rec::Hello);
  w.u32(static_cast<uint32_t>(getpid()));
  w.u8(Testbed::instance().pacing() ? 1 : 0);
  w.str(program_invocation_short_name);
  w.str(spec);
  w.end();
}

void writeAttach(Writer &w, uint32_t index, const SharedBus::Request &r) {
  w.begin(Rec::Attach);
  w.u32(index);
  w.u32(r.devType);
  w.u16(r.vendor);
  w.u16(r.product);
  w.u32(r.index);
  w.i32(r.slot);
  w.u8(static_cast<uint8_t>(r.channels));
  w.end();
}

} // namespace

bool SharedBus::wanted() {
  const char *v = std::getenv("WCAN_SIM_PRIVATE");
  return v == nullptr || std::strcmp(v, "1") != 0;
}

SharedBus::SharedBus(std::string spec) : spec_(std::move(spec)) {}

bool SharedBus::attach(std::vector<Request> &requests, std::vector<std::optional<Granted>> &granted,
                       std::string &error) {
  const int fd = connectOrStart(error);
  if (fd < 0)
    return false;
  if (!handshake(fd, requests, granted)) {
    close(fd);
    error = "the simulation host did not answer";
    return false;
  }
  std::lock_guard<std::mutex> lock(sendMutex_);
  fd_ = fd;
  return true;
}

// Hello and the requests in one packet, then every packet until each
// request has its answer (frames for adapters held already may come first).
bool SharedBus::handshake(int fd, const std::vector<Request> &requests,
                          std::vector<std::optional<Granted>> &granted) {
  Writer w;
  writeHello(w, spec_);
  for (size_t i = 0; i < requests.size(); ++i)
    writeAttach(w, static_cast<uint32_t>(i), requests[i]);
  granted.assign(requests.size(), std::nullopt);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    answers_ = &granted;
    answered_ = 0;
  }
  bool ok = wire::flush(fd, w);
  std::vector<uint8_t> buf(wire::kMaxPacket);
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
  while (ok) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (answered_ >= requests.size())
        break;
    }
    pollfd p{fd, POLLIN, 0};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const ssize_t n = left > 0 && poll(&p, 1, static_cast<int>(left)) > 0
                          ? recv(fd, buf.data(), buf.size(), 0)
                          : -1;
    ok = n > 0;
    if (ok)
      dispatch(buf.data(), static_cast<size_t>(n));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  answers_ = nullptr;
  return ok;
}

void SharedBus::bind(const std::shared_ptr<Adapter> &adapter, const Request &request) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    bound_[adapter->id()] = {adapter, request, 0, {}};
    bySlot_.emplace(request.slot, adapter->id());
  }
  std::lock_guard<std::mutex> lock(sendMutex_);
  if (!receiver_.joinable()) {
    receiver_ = std::thread([this] { receive(); });
    pthread_setname_np(receiver_.native_handle(), "wcansim-shared");
    receiver_.detach(); // runs for the whole process, as the test bed lives
  }
}

bool SharedBus::owns(AdapterId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return bound_.count(id) != 0;
}

// What the host needs for its status (channel states) rides with the frames
// of the same write.
void SharedBus::send(const std::shared_ptr<Adapter> &from, const BusFrames &frames) {
  const std::vector<ChannelState> states = from->channelStates();
  std::lock_guard<std::mutex> sending(sendMutex_);
  int slot = -1;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = bound_.find(from->id());
    if (it == bound_.end())
      return;
    Bound &b = it->second;
    slot = b.request.slot;
    for (unsigned ch = 0; ch < states.size(); ++ch) {
      if (ch < b.reported.size() && b.reported[ch] == states[ch])
        continue;
      out_.begin(Rec::Channel);
      out_.i32(slot);
      out_.u8(static_cast<uint8_t>(ch));
      out_.u8(states[ch].started ? 1 : 0);
      out_.u32(states[ch].rates.nominal);
      out_.u32(states[ch].rates.data);
      out_.end();
    }
    b.reported = states;
    b.inHost += frames.size();
  }
  for (const BusFrame &f : frames) {
    out_.begin(Rec::Send);
    out_.i32(slot);
    out_.u8(static_cast<uint8_t>(f.channel));
    out_.i64(f.duration.count());
    out_.frame(f.frame);
    out_.end();
    if (out_.full())
      wire::flush(fd_, out_);
  }
  // A lost host shows on the receiving side, which unplugs the adapters.
  wire::flush(fd_, out_);
}

int SharedBus::awaitRoom(const Adapter &adapter, uint32_t generation, unsigned timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto it = bound_.find(adapter.id());
  if (it == bound_.end())
    return 0;
  const Bound &b = it->second;
  auto ready = [&] {
    return !adapter.isCurrent(generation) || b.inHost < PacedBus::kTransmitQueueFrames;
  };
  if (timeoutMs == 0)
    changed_.wait(lock, ready);
  else if (!changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready))
    return LIBUSB_ERROR_TIMEOUT;
  return adapter.isCurrent(generation) ? 0 : LIBUSB_ERROR_NO_DEVICE;
}

void SharedBus::drop(AdapterId id) {
  std::lock_guard<std::mutex> sending(sendMutex_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = bound_.find(id);
    if (it == bound_.end())
      return;
    it->second.inHost = 0;
    out_.begin(Rec::Drop);
    out_.i32(it->second.request.slot);
    out_.end();
  }
  changed_.notify_all();
  wire::flush(fd_, out_);
}

std::vector<std::shared_ptr<Adapter>> SharedBus::holding(int slot) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::shared_ptr<Adapter>> found;
  for (auto [it, end] = bySlot_.equal_range(slot); it != end; ++it)
    found.push_back(bound_.at(it->second).adapter);
  return found;
}

void SharedBus::deliver(int slot, unsigned channel, int64_t endNs, const CanFrame &frame) {
  bool taken = false;
  for (const auto &adapter : holding(slot)) {
    BusFrames answers;
    taken = adapter->deliver(channel, frame, answers, timeOf(endNs)) || taken;
    if (!answers.empty())
      send(adapter, answers);
  }
  if (taken)
    usbEventHappened();
}

void SharedBus::dispatch(const uint8_t *data, size_t len) {
  Reader r(data, len);
  Rec type;
  while (r.next(type)) {
    switch (type) {
    case Rec::Attached:
    case Rec::Refused: {
      const uint32_t index = r.u32();
      std::optional<Granted> answer;
      if (type == Rec::Attached)
        answer = Granted{r.i32(), r.i64(), r.u8() != 0};
      else
        std::fprintf(stderr, "wcan-sim: %s\n", r.str().c_str());
      std::lock_guard<std::mutex> lock(mutex_);
      if (r.ok() && answers_ != nullptr && index < answers_->size()) {
        (*answers_)[index] = answer;
        ++answered_;
      }
      break;
    }
    case Rec::Deliver: {
      const int slot = r.i32();
      const unsigned channel = r.u8();
      const int64_t endNs = r.i64();
      const CanFrame frame = r.frame();
      if (r.ok())
        deliver(slot, channel, endNs, frame);
      break;
    }
    case Rec::Carried: {
      const int slot = r.i32();
      const unsigned channel = r.u8();
      for (const auto &adapter : holding(slot)) {
        adapter->noteSent(channel);
        std::lock_guard<std::mutex> lock(mutex_);
        size_t &inHost = bound_.at(adapter->id()).inHost;
        inHost -= inHost > 0 ? 1 : 0;
      }
      changed_.notify_all();
      break;
    }
    case Rec::Unplug:
      for (const auto &adapter : holding(r.i32())) {
        adapter->unplug();
        std::lock_guard<std::mutex> lock(mutex_);
        bound_.at(adapter->id()).inHost = 0;
        bound_.at(adapter->id()).reported.clear();
      }
      changed_.notify_all();
      break;
    case Rec::Replug: {
      const int slot = r.i32();
      const int64_t at = r.i64();
      for (const auto &adapter : holding(slot)) {
        adapter->replug();
        adapter->setPluggedAt(timeOf(at));
      }
      break;
    }
    case Rec::Notice:
      std::fprintf(stderr, "wcan-sim: %s\n", r.str().c_str());
      break;
    case Rec::Garble: {
      const int slot = r.i32();
      const std::vector<uint8_t> junk = r.rest();
      for (const auto &adapter : holding(slot))
        adapter->pushIn(adapter->streamEndpoint(), junk);
      break;
    }
    default:
      break;
    }
  }
}

void SharedBus::receive() {
  std::vector<uint8_t> buf(wire::kMaxPacket);
  for (;;) {
    int fd;
    {
      std::lock_guard<std::mutex> lock(sendMutex_);
      fd = fd_;
    }
    const ssize_t n = fd >= 0 ? recv(fd, buf.data(), buf.size(), 0) : 0;
    if (n < 0 && errno == EINTR)
      continue;
    if (n > 0) {
      dispatch(buf.data(), static_cast<size_t>(n));
      continue;
    }
    hostLost();
    rejoin();
  }
}

// Every shared adapter is gone with its host, as if unplugged.
void SharedBus::hostLost() {
  std::vector<std::shared_ptr<Adapter>> all;
  {
    std::lock_guard<std::mutex> sending(sendMutex_);
    if (fd_ >= 0)
      close(fd_);
    fd_ = -1;
    out_.clear();
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto &entry : bound_) {
      entry.second.inHost = 0;
      entry.second.reported.clear();
      all.push_back(entry.second.adapter);
    }
  }
  for (const auto &adapter : all)
    adapter->unplug();
  changed_.notify_all();
}

// Finds or starts a new host and asks it for the same adapter slots, so the
// serial numbers stay; each adapter comes back as a replugged device.
void SharedBus::rejoin() {
  std::vector<Request> requests;
  std::vector<AdapterId> ids;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto &entry : bound_) {
      requests.push_back(entry.second.request);
      ids.push_back(entry.first);
    }
  }
  for (;;) {
    usleep(100000);
    std::string error;
    const int fd = connectOrStart(error);
    std::vector<std::optional<Granted>> granted;
    if (fd < 0 || !handshake(fd, requests, granted)) {
      if (fd >= 0)
        close(fd);
      continue;
    }
    std::vector<std::pair<std::shared_ptr<Adapter>, Granted>> back;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      bySlot_.clear();
      for (size_t i = 0; i < ids.size(); ++i) {
        if (!granted[i])
          continue;
        Bound &b = bound_.at(ids[i]);
        b.request.slot = granted[i]->slot;
        bySlot_.emplace(b.request.slot, ids[i]);
        if (granted[i]->plugged)
          back.emplace_back(b.adapter, *granted[i]);
      }
    }
    {
      std::lock_guard<std::mutex> sending(sendMutex_);
      fd_ = fd;
    }
    for (const auto &[adapter, g] : back) {
      adapter->replug();
      adapter->setPluggedAt(timeOf(g.pluggedAtNs));
    }
    return;
  }
}

} // namespace wcansim
