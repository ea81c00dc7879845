// SPDX-License-Identifier: MIT
#include "SimWire.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace wcansim::wire {

namespace {

enum FrameFlags : uint8_t { kExtended = 1, kRemote = 2, kFd = 4, kBrs = 8 };

} // namespace

void Writer::put(const void *p, size_t n) {
  const auto *b = static_cast<const uint8_t *>(p);
  buf_.insert(buf_.end(), b, b + n);
}

void Writer::begin(Rec type) {
  recordStart_ = buf_.size();
  u8(static_cast<uint8_t>(type));
  u16(0);
}

void Writer::end() {
  const auto len = static_cast<uint16_t>(buf_.size() - recordStart_ - 3);
  std::memcpy(buf_.data() + recordStart_ + 1, &len, 2);
}

void Writer::str(const std::string &s) {
  const auto n = static_cast<uint16_t>(std::min<size_t>(s.size(), 4000));
  u16(n);
  put(s.data(), n);
}

void Writer::frame(const CanFrame &f) {
  u32(f.id);
  u8(static_cast<uint8_t>((f.extended ? kExtended : 0) | (f.remote ? kRemote : 0) |
                          (f.fd ? kFd : 0) | (f.brs ? kBrs : 0)));
  const uint8_t len = std::min<uint8_t>(f.len, 64);
  u8(len);
  put(f.data, len);
}

bool Reader::next(Rec &type) {
  if (!ok_)
    return false;
  if (recEnd_ != nullptr)
    p_ = recEnd_;
  if (end_ - p_ < 3)
    return false;
  type = static_cast<Rec>(p_[0]);
  uint16_t len = 0;
  std::memcpy(&len, p_ + 1, 2);
  p_ += 3;
  if (end_ - p_ < len) {
    ok_ = false;
    return false;
  }
  recEnd_ = p_ + len;
  return true;
}

std::string Reader::str() {
  const uint16_t n = u16();
  if (!ok_ || recEnd_ - p_ < n) {
    ok_ = false;
    return {};
  }
  std::string s(reinterpret_cast<const char *>(p_), n);
  p_ += n;
  return s;
}

CanFrame Reader::frame() {
  CanFrame f;
  f.id = u32();
  const uint8_t flags = u8();
  f.extended = (flags & kExtended) != 0;
  f.remote = (flags & kRemote) != 0;
  f.fd = (flags & kFd) != 0;
  f.brs = (flags & kBrs) != 0;
  f.len = u8();
  if (!ok_ || f.len > 64 || recEnd_ - p_ < f.len) {
    ok_ = false;
    return {};
  }
  std::memcpy(f.data, p_, f.len);
  p_ += f.len;
  return f;
}

std::vector<uint8_t> Reader::rest() {
  if (!ok_)
    return {};
  std::vector<uint8_t> v(p_, recEnd_);
  p_ = recEnd_;
  return v;
}

std::optional<std::string> runtimeDir(std::string &error) {
  if (const char *xdg = std::getenv("XDG_RUNTIME_DIR"); xdg != nullptr && *xdg != '\0')
    return std::string(xdg);
  const std::string dir = "/tmp/wcan-sim-" + std::to_string(getuid());
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    error = "cannot make " + dir + ": " + std::strerror(errno);
    return std::nullopt;
  }
  struct stat st {};
  if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid() ||
      (st.st_mode & 077) != 0) {
    error = dir + " is not a private folder of this user";
    return std::nullopt;
  }
  return dir;
}

std::string socketPath(const std::string &dir) { return dir + "/wcan-sim.sock"; }
std::string lockPath(const std::string &dir) { return dir + "/wcan-sim.lock"; }

int connectTo(const std::string &path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0)
    return -1;
  if (connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
    const int e = errno;
    close(fd);
    errno = e;
    return -1;
  }
  return fd;
}

bool flush(int fd, Writer &w) {
  if (w.empty())
    return true;
  ssize_t n;
  do
    n = send(fd, w.bytes().data(), w.bytes().size(), MSG_NOSIGNAL);
  while (n < 0 && errno == EINTR);
  w.clear();
  return n >= 0;
}

std::optional<std::pair<bool, std::string>> runCommand(const std::string &command,
                                                       std::string &error) {
  const auto dir = runtimeDir(error);
  if (!dir)
    return std::nullopt;
  const int fd = connectTo(socketPath(*dir));
  if (fd < 0) {
    error = "no simulation host is running (" + socketPath(*dir) + ")";
    return std::nullopt;
  }
  Writer w;
  w.begin(Rec::Command);
  w.str(command);
  w.end();
  std::vector<uint8_t> buf(kMaxPacket);
  std::optional<std::pair<bool, std::string>> answer;
  if (flush(fd, w)) {
    for (;;) {
      const ssize_t n = recv(fd, buf.data(), buf.size(), 0);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        break;
      Reader r(buf.data(), static_cast<size_t>(n));
      Rec type;
      while (!answer && r.next(type))
        if (type == Rec::Reply) {
          const bool ok = r.u8() != 0;
          answer = std::make_pair(ok, r.str());
        }
      if (answer)
        break;
    }
  }
  close(fd);
  if (!answer)
    error = "the simulation host went away without an answer";
  return answer;
}

} // namespace wcansim::wire
