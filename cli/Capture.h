// SPDX-License-Identifier: MIT
// Capturing into one time-ordered stream: frames of several channels of an
// adapter, or of several buses of a server, written as pcapng (to a file with
// rotation, standard output or Wireshark's pipe) or as candump -L lines.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capture/Pcapng.h"
#include "cli/Commands.h"
#include "cli/Traffic.h"
#include "common/Device.h"
#include "common/DeviceClock.h"
#include "net/Client.h"

namespace wcantool {

struct CapturedFrame {
  uint32_t interface = 0; // index into the source's interfaces
  int64_t epochUs = 0;
  Frame frame;
  capture::Direction direction = capture::Direction::Inbound;
};

class CaptureSource {
public:
  virtual ~CaptureSource() = default;
  const std::vector<capture::InterfaceInfo> &interfaces() const { return interfaces_; }
  // Appends what arrived, waiting up to waitMs when nothing has.
  virtual void receive(std::vector<CapturedFrame> &out, int waitMs) = 0;

protected:
  std::vector<capture::InterfaceInfo> interfaces_;
};

// Channels of one local adapter, stamped by each channel's DeviceClock.
class LocalCapture : public CaptureSource {
public:
  // Opens the adapter and starts the channels; throws ToolError, UsageError.
  LocalCapture(const Runtime &runtime, unsigned type, unsigned index,
               const std::vector<unsigned> &channels, const ChannelSettings &settings);
  // Sends --tx frames; those on a captured channel are captured as sent.
  void sendLoopback(const std::vector<TxRequest> &requests, const ChannelSettings &settings);
  void receive(std::vector<CapturedFrame> &out, int waitMs) override;

private:
  DeviceSession device_;
  std::vector<unsigned> channels_;
  std::vector<CapturedFrame> sent_;
  std::vector<RxFrame> scratch_;
};

// Buses of a `wcan serve` server, stamped by the server.
class RemoteCapture : public CaptureSource {
public:
  RemoteCapture(const net::ServerAddress &server, const std::vector<std::string> &buses);
  void receive(std::vector<CapturedFrame> &out, int waitMs) override;

private:
  std::vector<std::unique_ptr<net::Client>> clients_;
};

// A failed write; `pipeClosed` when the reader went away.
struct CaptureWriteError {
  std::string message;
  bool pipeClosed = false;
};

class FrameSink {
public:
  virtual ~FrameSink() = default;
  // False when the reader went away and the capture should end quietly;
  // throws CaptureWriteError.
  virtual bool write(const std::vector<CapturedFrame> &frames) = 0;
};

struct PcapngTarget {
  std::string path;           // "-": standard output
  uint64_t rotateBytes = 0;   // -C: a new file before this size is passed
  unsigned rotateSeconds = 0; // -G: a new file after this many seconds
};

// pcapng into a file (FILE, FILE1, FILE2, ... when rotating, as tcpdump
// names them), standard output or a named pipe. Every file starts with the
// section header and the interfaces; blocks are written whole, and a write
// that fails part way is cut back so the file ends on its last whole block.
class PcapngSink : public FrameSink {
public:
  // Throws CaptureWriteError.
  PcapngSink(PcapngTarget target, std::vector<capture::InterfaceInfo> interfaces);
  ~PcapngSink() override;
  PcapngSink(const PcapngSink &) = delete;
  PcapngSink &operator=(const PcapngSink &) = delete;
  bool write(const std::vector<CapturedFrame> &frames) override;

private:
  void openFile();
  bool rotationDue(size_t nextBlock) const;
  void flush();

  PcapngTarget target_;
  std::vector<capture::InterfaceInfo> interfaces_;
  int fd_ = -1;
  bool regular_ = false;
  unsigned fileNumber_ = 0;
  std::string fileName_;
  uint64_t fileBytes_ = 0;
  bool filePackets_ = false;
  std::chrono::steady_clock::time_point fileStart_;
  std::vector<uint8_t> buffer_;
};

// Runs until --count, --timeout or a stop signal; frames of several
// interfaces are held back briefly so that they leave in time order.
// Returns the exit status (1 when --count frames did not arrive in time).
int runCapture(CaptureSource &source, FrameSink &sink, const DumpLimits &limits,
               const char *command);

// dump with -w, --format pcapng or several channels / buses.
bool wantsCapture(const Args &args);
int captureLocal(Context &ctx, const Args &args);
int captureRemote(const Args &args, const RemoteBus &remote);

// "500 kbit/s", "2 Mbit/s".
std::string bitRateText(unsigned bitsPerSecond);

} // namespace wcantool
