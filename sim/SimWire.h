// SPDX-License-Identifier: MIT
// The messages between the processes that share the simulated buses and the
// simulation host that owns them. One packet of a SOCK_SEQPACKET Unix socket
// carries a batch of records, each a type byte, a 16-bit length and its
// payload in host byte order (both ends run on the same machine), so a busy
// sender pays one system call for many frames.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "SimModel.h"

namespace wcansim::wire {

enum class Rec : uint8_t {
  // client -> host
  Hello = 1,   // u32 pid, u8 pacing, str program, str spec
  Attach = 2,  // u32 devType, u16 vendor, u16 product, u32 index, i32 wantedSlot
  Send = 3,    // i32 slot, u8 channel, i64 duration ns, frame
  Channel = 4, // i32 slot, u8 channel, u8 started, u32 nominal, u32 data
  Drop = 5,    // i32 slot: the adapter forgot its unsent frames
  Command = 6, // str: status | unplug T I | replug T I | garble T I | stop
  // host -> client
  Attached = 20, // u32 index in the client's request list, i32 slot, i64 plugged at ns, u8 plugged
  Refused = 21,  // u32 index in the client's request list, str reason
  Deliver = 22,  // i32 slot, u8 channel, i64 end ns, frame
  Carried = 23,  // i32 slot, u8 channel: a frame this client sent went over the bus
  Unplug = 24,   // i32 slot
  Replug = 25,   // i32 slot, i64 plugged at ns
  Garble = 26,   // i32 slot, bytes
  Reply = 27,    // u8 ok, str text
  Notice = 28,   // str: a warning for the client's standard error
};

// Records of one packet; the whole packet stays below this size.
constexpr size_t kMaxPacket = 60000;

class Writer {
public:
  void begin(Rec type);
  void end();
  void u8(uint8_t v) { put(&v, 1); }
  void u16(uint16_t v) { put(&v, 2); }
  void u32(uint32_t v) { put(&v, 4); }
  void i32(int32_t v) { put(&v, 4); }
  void i64(int64_t v) { put(&v, 8); }
  void str(const std::string &s);
  void frame(const CanFrame &f);
  void raw(const uint8_t *p, size_t n) { put(p, n); }

  bool empty() const { return buf_.empty(); }
  bool full() const { return buf_.size() > kMaxPacket - 512; }
  const std::vector<uint8_t> &bytes() const { return buf_; }
  void clear() { buf_.clear(); }

private:
  void put(const void *p, size_t n);
  std::vector<uint8_t> buf_;
  size_t recordStart_ = 0;
};

// Reads the records of one packet; any short or malformed field makes every
// later read fail (ok() false) instead of reading past the end.
class Reader {
public:
  Reader(const uint8_t *data, size_t len) : p_(data), end_(data + len) {}
  // Moves to the next record; false at the end of the packet or on damage.
  bool next(Rec &type);
  bool ok() const { return ok_; }

  uint8_t u8() { return get<uint8_t>(); }
  uint16_t u16() { return get<uint16_t>(); }
  uint32_t u32() { return get<uint32_t>(); }
  int32_t i32() { return get<int32_t>(); }
  int64_t i64() { return get<int64_t>(); }
  std::string str();
  CanFrame frame();
  std::vector<uint8_t> rest();

private:
  template <class T> T get() {
    T v{};
    if (ok_ && static_cast<size_t>(recEnd_ - p_) >= sizeof v) {
      std::memcpy(&v, p_, sizeof v);
      p_ += sizeof v;
    } else {
      ok_ = false;
    }
    return v;
  }

  const uint8_t *p_;
  const uint8_t *end_;
  const uint8_t *recEnd_ = nullptr;
  bool ok_ = true;
};

// The folder of the user's simulation socket: $XDG_RUNTIME_DIR, else
// /tmp/wcan-sim-UID made with mode 0700 (refused if another user owns it).
std::optional<std::string> runtimeDir(std::string &error);
std::string socketPath(const std::string &dir);
std::string lockPath(const std::string &dir);

// A connected SOCK_SEQPACKET socket to the host, or -1 with errno set.
int connectTo(const std::string &path);
// Sends the batch (if any) as one packet and clears it; false if the host
// is gone.
bool flush(int fd, Writer &w);

// One command of `wcan sim` and the host's answer; nullopt with `error` set
// when no host runs or it went away.
std::optional<std::pair<bool, std::string>> runCommand(const std::string &command,
                                                       std::string &error);

} // namespace wcansim::wire
