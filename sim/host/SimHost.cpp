// SPDX-License-Identifier: MIT
#include "SimHost.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "PacedBus.h"
#include "SimWire.h"

namespace wcansim {

namespace {

using Clock = std::chrono::steady_clock;
using wire::Reader;
using wire::Rec;
using wire::Writer;

int64_t nanosOf(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}

std::string hex4(unsigned v) {
  char text[8];
  std::snprintf(text, sizeof text, "%04x", v & 0xFFFF);
  return text;
}

// One adapter as every process sharing it sees it: found again by its type
// group (USB ids) and its index in that group.
struct Slot {
  unsigned devType = 0;
  uint16_t vendor = 0;
  uint16_t product = 0;
  uint32_t index = 0;
  unsigned channels = 0;
  bool plugged = true;
  int64_t pluggedAtNs = 0;
  std::string addedBy;                                  // the adapter list and process that added it
  std::vector<std::map<uint32_t, ChannelState>> states; // per channel, by client

  std::string name() const { return std::to_string(devType) + "/" + std::to_string(index); }
};

struct Client {
  explicit Client(uint32_t id_, int fd_) : id(id_), fd(fd_) {}
  ~Client() { close(fd); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  const uint32_t id;
  const int fd;
  uint32_t pid = 0;
  std::string program;
  std::string spec;
  bool attached = false; // said hello: a process using the buses, not a command
  std::set<int> slots;
  Writer out;
  bool dead = false;
  std::mutex sendMutex; // one packet at a time, in the order they were filled

  std::string who() const { return std::to_string(pid) + " " + program; }
};

class Host final : private BusWiring {
public:
  Host(int listenFd, std::chrono::milliseconds linger)
      : listenFd_(listenFd), linger_(linger), bus_(*this) {}
  int run();

private:
  using ClientPtr = std::shared_ptr<Client>;

  // BusWiring
  std::vector<BusPort> busOf(BusPort port) const override;
  void carry(const Transmission &t, Clock::time_point end) override;
  void roundDone() override { flushAll(); }

  void acceptClient();
  void readFrom(const ClientPtr &c);
  // A USB reset's drop: after how many of the batch's frames, and of which slot.
  using Drop = std::pair<size_t, int>;
  void handle(Client &c, Reader &r, Rec type, std::vector<Transmission> &toBus,
              std::vector<Drop> &drops, std::string &command);
  // Hands the batch's frames [from, to) to the bus; `from` ends at `to`.
  void toTheBus(std::vector<Transmission> &toBus, size_t &from, size_t to);
  void attach(Client &c, Reader &r);
  void warnOfPacing(Client &c, bool asked);
  void runCommand(const ClientPtr &c, const std::string &command);
  std::string status() const;
  bool changePlug(const std::string &name, bool plug, std::string &reply);
  bool garble(const std::string &name, std::string &reply);
  Slot *findSlot(const std::string &type, const std::string &index, int &slot);
  void toHolders(int slot, const std::function<void(Writer &)> &record);
  void flush(const ClientPtr &c);
  void flushAll();
  void removeDead();
  size_t attachedClients() const;

  const int listenFd_;
  const std::chrono::milliseconds linger_;
  mutable std::mutex mutex_; // after the bus's lock and a client's send lock
  std::map<uint32_t, ClientPtr> clients_;
  std::map<int, Slot> slots_;
  uint32_t nextClient_ = 1;
  bool stopping_ = false;
  PacedBus bus_;
};

size_t Host::attachedClients() const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const auto &entry : clients_)
    n += entry.second->attached ? 1 : 0;
  return n;
}

int Host::run() {
  Clock::time_point idleSince = Clock::now();
  while (!stopping_) {
    removeDead();
    const bool idle = attachedClients() == 0;
    if (!idle)
      idleSince = Clock::now();
    else if (Clock::now() - idleSince >= linger_)
      break;
    std::vector<pollfd> fds{{listenFd_, POLLIN, 0}};
    std::vector<ClientPtr> polled;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const auto &entry : clients_) {
        fds.push_back({entry.second->fd, POLLIN, 0});
        polled.push_back(entry.second);
      }
    }
    if (poll(fds.data(), fds.size(), idle ? 100 : 1000) < 0 && errno != EINTR)
      return 1;
    if ((fds[0].revents & POLLIN) != 0)
      acceptClient();
    for (size_t i = 1; i < fds.size(); ++i)
      if (fds[i].revents != 0)
        readFrom(polled[i - 1]);
  }
  flushAll();
  return 0;
}

void Host::acceptClient() {
  const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0)
    return;
  std::lock_guard<std::mutex> lock(mutex_);
  const uint32_t id = nextClient_++;
  clients_.emplace(id, std::make_shared<Client>(id, fd));
}

// Takes every packet waiting from the client, then hands the frames to the
// bus without the host's lock.
void Host::readFrom(const ClientPtr &c) {
  std::vector<uint8_t> buf(wire::kMaxPacket);
  std::vector<Transmission> toBus;
  std::vector<Drop> drops;
  std::string command;
  for (int packets = 0; packets < 64; ++packets) {
    const ssize_t n = recv(c->fd, buf.data(), buf.size(), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
      break;
    if (n <= 0) {
      std::lock_guard<std::mutex> lock(mutex_);
      c->dead = true;
      break;
    }
    Reader r(buf.data(), static_cast<size_t>(n));
    std::lock_guard<std::mutex> lock(mutex_);
    Rec type;
    while (r.next(type))
      handle(*c, r, type, toBus, drops, command);
    if (!r.ok())
      c->dead = true; // a client that garbles the protocol is cut off
  }
  // A USB reset forgets the frames its process queued before it, not those
  // it sends after, nor the frames of other processes on the adapter.
  size_t queued = 0;
  for (const auto &[before, slot] : drops) {
    toTheBus(toBus, queued, before);
    bus_.drop(slot, c->id);
  }
  toTheBus(toBus, queued, toBus.size());
  if (!command.empty())
    runCommand(c, command);
  flushAll();
}

void Host::toTheBus(std::vector<Transmission> &toBus, size_t &from, size_t to) {
  const Clock::time_point now = Clock::now();
  for (; from < to; ++from) {
    if (bus_.enabled())
      bus_.send(std::move(toBus[from]));
    else
      carry(toBus[from], now);
  }
}

void Host::handle(Client &c, Reader &r, Rec type, std::vector<Transmission> &toBus,
                  std::vector<Drop> &drops, std::string &command) {
  switch (type) {
  case Rec::Hello: {
    c.pid = r.u32();
    const bool pacing = r.u8() != 0;
    c.program = r.str();
    c.spec = r.str();
    c.attached = true;
    if (r.ok() && pacing != bus_.enabled())
      warnOfPacing(c, pacing);
    break;
  }
  case Rec::Attach:
    attach(c, r);
    break;
  case Rec::Send: {
    const int slot = r.i32();
    const unsigned channel = r.u8();
    const std::chrono::nanoseconds duration(r.i64());
    const CanFrame frame = r.frame();
    const auto it = slots_.find(slot);
    if (r.ok() && it != slots_.end() && it->second.plugged && channel < it->second.channels)
      toBus.push_back({{slot, channel, false}, nullptr, frame, duration, c.id});
    break;
  }
  case Rec::Channel: {
    const int slot = r.i32();
    const unsigned channel = r.u8();
    ChannelState state;
    state.started = r.u8() != 0;
    state.rates.nominal = r.u32();
    state.rates.data = r.u32();
    const auto it = slots_.find(slot);
    if (r.ok() && it != slots_.end() && channel < it->second.states.size())
      it->second.states[channel][c.id] = state;
    break;
  }
  case Rec::Drop:
    drops.push_back({toBus.size(), r.i32()});
    break;
  case Rec::Command:
    command = r.str();
    break;
  default:
    break; // a later version's record: skipped
  }
}

// The host's pacing, set by the process that started it, rules every bus.
void Host::warnOfPacing(Client &c, bool asked) {
  auto setting = [](bool on) { return std::string(on ? "on" : "off (WCAN_SIM_PACE=0)"); };
  c.out.begin(Rec::Notice);
  c.out.str("this process asked for pacing " + setting(asked) + ", but the simulation host " +
            std::to_string(getpid()) + " it shares the buses through runs with pacing " +
            setting(bus_.enabled()) + ": the host's setting applies");
  c.out.end();
}

// A second process asking for an adapter slot gets the one there; asking
// for another type in that slot is refused with both sides named.
void Host::attach(Client &c, Reader &r) {
  const uint32_t request = r.u32();
  Slot want;
  want.devType = r.u32();
  want.vendor = r.u16();
  want.product = r.u16();
  want.index = r.u32();
  const int wantedSlot = r.i32();
  want.channels = r.u8();
  if (!r.ok())
    return;
  c.out.begin(Rec::Attached);
  int slot = -1;
  for (auto &entry : slots_) {
    const Slot &s = entry.second;
    if (s.vendor == want.vendor && s.product == want.product && s.index == want.index) {
      if (s.devType != want.devType) {
        c.out.begin(Rec::Refused);
        c.out.u32(request);
        c.out.str("adapter " + std::to_string(want.index) + " of USB id " + hex4(want.vendor) +
                  ":" + hex4(want.product) + " is type " + std::to_string(s.devType) +
                  " in the shared simulation (" + s.addedBy + "), not type " +
                  std::to_string(want.devType) + " (WCAN_SIM=" + c.spec + " of " + c.who() + ")");
        c.out.end();
        return;
      }
      slot = entry.first;
    }
  }
  if (slot < 0) {
    slot = wantedSlot >= 0 && slots_.count(wantedSlot) == 0 ? wantedSlot : 0;
    while (slots_.count(slot) != 0)
      ++slot;
    want.pluggedAtNs = nanosOf(Clock::now());
    want.addedBy = "WCAN_SIM=" + c.spec + " of " + c.who();
    want.states.resize(want.channels);
    slots_.emplace(slot, std::move(want));
  }
  const Slot &s = slots_.at(slot);
  c.slots.insert(slot);
  c.out.u32(request);
  c.out.i32(slot);
  c.out.i64(s.pluggedAtNs);
  c.out.u8(s.plugged ? 1 : 0);
  c.out.end();
}

// Cables join channel 2k and 2k+1 of each adapter; a foreign node's frame
// is heard on its own channel too.
std::vector<BusPort> Host::busOf(BusPort port) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<BusPort> bus{port.cable()};
  const auto it = slots_.find(port.adapter);
  if (it != slots_.end() && (port.channel ^ 1U) < it->second.channels)
    bus.push_back({port.adapter, port.channel ^ 1U, false});
  return bus;
}

void Host::carry(const Transmission &t, Clock::time_point end) {
  std::vector<ClientPtr> full;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto slot = slots_.find(t.from.adapter);
    if (slot == slots_.end() || !slot->second.plugged)
      return;
    std::vector<unsigned> to;
    if (t.from.foreign)
      to.push_back(t.from.channel);
    if ((t.from.channel ^ 1U) < slot->second.channels)
      to.push_back(t.from.channel ^ 1U);
    for (const auto &entry : clients_) {
      Client &c = *entry.second;
      if (c.dead || c.slots.count(t.from.adapter) == 0)
        continue;
      for (unsigned channel : to) {
        c.out.begin(Rec::Deliver);
        c.out.i32(t.from.adapter);
        c.out.u8(static_cast<uint8_t>(channel));
        c.out.i64(nanosOf(end));
        c.out.frame(t.frame);
        c.out.end();
      }
      if (c.id == t.origin) {
        c.out.begin(Rec::Carried);
        c.out.i32(t.from.adapter);
        c.out.u8(static_cast<uint8_t>(t.from.channel));
        c.out.end();
      }
      if (c.out.full())
        full.push_back(entry.second);
    }
  }
  for (const ClientPtr &c : full)
    flush(c);
}

void Host::flush(const ClientPtr &c) {
  std::lock_guard<std::mutex> sending(c->sendMutex);
  Writer batch;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (c->out.empty() || c->dead)
      return;
    std::swap(batch, c->out);
  }
  if (!wire::flush(c->fd, batch)) {
    std::lock_guard<std::mutex> lock(mutex_);
    c->dead = true;
  }
}

void Host::flushAll() {
  std::vector<ClientPtr> all;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto &entry : clients_)
      all.push_back(entry.second);
  }
  for (const ClientPtr &c : all)
    flush(c);
}

void Host::removeDead() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = clients_.begin(); it != clients_.end();) {
    if (!it->second->dead) {
      ++it;
      continue;
    }
    for (auto &slot : slots_)
      for (auto &byClient : slot.second.states)
        byClient.erase(it->first);
    it = clients_.erase(it);
  }
}

void Host::toHolders(int slot, const std::function<void(Writer &)> &record) {
  for (const auto &entry : clients_)
    if (entry.second->slots.count(slot) != 0)
      record(entry.second->out);
}

Slot *Host::findSlot(const std::string &type, const std::string &index, int &slot) {
  for (auto &entry : slots_)
    if (std::to_string(entry.second.devType) == type &&
        std::to_string(entry.second.index) == index) {
      slot = entry.first;
      return &entry.second;
    }
  return nullptr;
}

// Unplugging lets the bus finish what it already carried, as in a single
// process, and cuts off the rest.
bool Host::changePlug(const std::string &name, bool plug, std::string &reply) {
  int slot = -1;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::istringstream in(name);
    std::string type, index;
    in >> type >> index;
    Slot *s = findSlot(type, index, slot);
    if (s == nullptr) {
      reply = "no adapter " + type + "/" + index + " in the shared simulation";
      return false;
    }
    if (s->plugged == plug) {
      reply = "adapter " + s->name() + (plug ? " is plugged in already" : " is unplugged already");
      return false;
    }
    reply = "adapter " + s->name() + (plug ? " plugged in again" : " unplugged");
    if (plug) {
      s->plugged = true;
      s->pluggedAtNs = nanosOf(Clock::now());
      toHolders(slot, [&](Writer &w) {
        w.begin(Rec::Replug);
        w.i32(slot);
        w.i64(s->pluggedAtNs);
        w.end();
      });
      return true;
    }
  }
  bus_.catchUp();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Slot &s = slots_.at(slot);
    s.plugged = false;
    for (auto &byClient : s.states)
      byClient.clear(); // an unplugged adapter's channels are closed
    toHolders(slot, [&](Writer &w) {
      w.begin(Rec::Unplug);
      w.i32(slot);
      w.end();
    });
  }
  flushAll();
  bus_.drop(slot);
  return true;
}

bool Host::garble(const std::string &name, std::string &reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::istringstream in(name);
  std::string type, index;
  in >> type >> index;
  int slot = -1;
  const Slot *s = findSlot(type, index, slot);
  if (s == nullptr) {
    reply = "no adapter " + type + "/" + index + " in the shared simulation";
    return false;
  }
  std::mt19937 random(static_cast<unsigned>(nanosOf(Clock::now())));
  std::vector<uint8_t> junk(64);
  for (uint8_t &b : junk)
    b = static_cast<uint8_t>(random());
  toHolders(slot, [&](Writer &w) {
    w.begin(Rec::Garble);
    w.i32(slot);
    w.raw(junk.data(), junk.size());
    w.end();
  });
  reply = "sent " + std::to_string(junk.size()) + " bytes of garbage on adapter " + s->name();
  return true;
}

std::string Host::status() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::ostringstream out;
  size_t attached = 0;
  for (const auto &entry : clients_)
    attached += entry.second->attached ? 1 : 0;
  out << "simulation host " << getpid() << ", pacing " << (bus_.enabled() ? "on" : "off") << ", "
      << attached << (attached == 1 ? " process\n" : " processes\n");
  for (const auto &[slot, s] : slots_) {
    const UsbSocket where = socketOf(slot);
    out << "adapter " << s.name() << ": serial " << serialNumberOf(s.devType, slot) << ", bus "
        << unsigned(where.bus) << " port " << unsigned(where.ports[0]) << "."
        << unsigned(where.ports[1]) << "." << unsigned(where.ports[2]) << ", "
        << (s.plugged ? "plugged in" : "unplugged") << "\n";
    for (unsigned ch = 0; ch < s.channels; ++ch) {
      out << "  channel " << ch << ":";
      bool open = false;
      for (const auto &[id, state] : s.states[ch]) {
        if (!state.started)
          continue;
        open = true;
        out << " " << state.rates.nominal << " bit/s";
        if (state.rates.data != 0 && state.rates.data != state.rates.nominal)
          out << " (data " << state.rates.data << " bit/s)";
        out << " in " << clients_.at(id)->who() << ";";
      }
      out << (open ? "\n" : " closed\n");
    }
    out << "  used by:";
    for (const auto &entry : clients_)
      if (entry.second->slots.count(slot) != 0)
        out << " " << entry.second->who() << ";";
    out << "\n";
  }
  std::string text = out.str();
  text.pop_back();
  return text;
}

void Host::runCommand(const ClientPtr &c, const std::string &command) {
  std::istringstream in(command);
  std::string verb, rest;
  in >> verb;
  std::getline(in, rest);
  bool ok = true;
  std::string reply;
  if (verb == "status") {
    reply = status();
  } else if (verb == "unplug" || verb == "replug") {
    ok = changePlug(rest, verb == "replug", reply);
  } else if (verb == "garble") {
    ok = garble(rest, reply);
  } else if (verb == "stop") {
    reply = "simulation host " + std::to_string(getpid()) + " stopped";
    stopping_ = true;
  } else {
    ok = false;
    reply = "unknown command '" + verb + "'";
  }
  std::lock_guard<std::mutex> lock(mutex_);
  c->out.begin(Rec::Reply);
  c->out.u8(ok ? 1 : 0);
  c->out.str(reply);
  c->out.end();
}

int listenOn(const std::string &path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path)
    return -1;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0)
    return -1;
  unlink(path.c_str()); // left by a host that was killed: the lock says none runs
  if (bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 ||
      listen(fd, 64) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Detach from the process that started the host: it waits for this
// parent to exit, by which time the socket listens.
void detach() {
  const pid_t child = fork();
  if (child != 0)
    _exit(child < 0 ? 1 : 0);
  setsid();
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null >= 0) {
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    close(null);
  }
}

std::chrono::milliseconds lingerFromEnvironment() {
  const char *v = std::getenv("WCAN_SIM_LINGER_MS");
  return std::chrono::milliseconds(v != nullptr ? std::atoi(v) : 3000);
}

} // namespace

int simulationHostMain(int argc, char **argv) {
  const bool foreground = argc > 1 && std::strcmp(argv[1], "--foreground") == 0;
  std::string error;
  const auto dir = wire::runtimeDir(error);
  if (!dir) {
    std::fprintf(stderr, "wcan-simhost: %s\n", error.c_str());
    return 1;
  }
  const int lock = open(wire::lockPath(*dir).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  if (lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0)
    return lock < 0 ? 1 : 0; // another host serves this user
  const std::string path = wire::socketPath(*dir);
  const int fd = listenOn(path);
  if (fd < 0) {
    std::fprintf(stderr, "wcan-simhost: cannot listen on %s: %s\n", path.c_str(),
                 std::strerror(errno));
    return 1;
  }
  if (!foreground)
    detach();
  const int status = Host(fd, lingerFromEnvironment()).run();
  // The socket goes before the lock, so a starter never finds a dead socket
  // while the lock is free.
  unlink(path.c_str());
  close(fd);
  close(lock);
  return status;
}

} // namespace wcansim
