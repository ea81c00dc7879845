// SPDX-License-Identifier: MIT
// What a captured frame costs to write and to read back: a candump -L line
// against a pcapng enhanced packet block, for a classic 8-byte frame and a
// CAN FD 64-byte frame.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "capture/CandumpLog.h"
#include "capture/Pcapng.h"

namespace {

using namespace wcantool;

Frame sample(bool fd) {
  Frame f{0x18FEF100, true, false, fd, fd, static_cast<uint8_t>(fd ? 64 : 8)};
  for (unsigned i = 0; i < f.len; ++i)
    f.data[i] = static_cast<uint8_t>(i * 37);
  return f;
}

constexpr int64_t kStartUs = 1700000000000000;

void FormatLogLine(benchmark::State &state) {
  const Frame f = sample(state.range(0) != 0);
  std::string out;
  int64_t t = kStartUs;
  for (auto _ : state) {
    out += capture::formatLogRecord(t++, "wcan66-0-7", f);
    out += '\n';
    if (out.size() > (1u << 20))
      out.clear();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FormatLogLine)->Arg(0)->Arg(1);

void FormatPcapngPacket(benchmark::State &state) {
  const Frame f = sample(state.range(0) != 0);
  std::vector<uint8_t> out;
  int64_t t = kStartUs;
  for (auto _ : state) {
    capture::appendPacket(out, 7, t++, f, capture::Direction::Inbound);
    if (out.size() > (1u << 20))
      out.clear();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FormatPcapngPacket)->Arg(0)->Arg(1);

void ReadLogLine(benchmark::State &state) {
  const std::string line = capture::formatLogRecord(kStartUs, "wcan66-0-7", sample(state.range(0)));
  capture::LogRecord record;
  std::string error;
  for (auto _ : state)
    benchmark::DoNotOptimize(capture::parseLogLine(line, record, error));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ReadLogLine)->Arg(0)->Arg(1);

void ReadPcapngPacket(benchmark::State &state) {
  std::vector<uint8_t> file;
  capture::appendSectionHeader(file, "bench");
  capture::appendInterface(file, {"wcan66-0-7", ""});
  constexpr int kPackets = 10000;
  for (int i = 0; i < kPackets; ++i)
    capture::appendPacket(file, 0, kStartUs + i, sample(state.range(0) != 0),
                          capture::Direction::Inbound);
  capture::Packet packet;
  for (auto _ : state) {
    capture::PcapngReader reader(file.data(), file.size());
    while (reader.next(packet) == capture::PcapngReader::Result::Packet)
      benchmark::DoNotOptimize(packet);
  }
  state.SetItemsProcessed(state.iterations() * kPackets);
}
BENCHMARK(ReadPcapngPacket)->Arg(0)->Arg(1);

} // namespace
