// SPDX-License-Identifier: MIT
// Receive decoding and transmit encoding of the classic adapter, measured
// against its bus: 1 Mbit/s classic CAN carries at most about 8,000 frames
// per second per channel, and one 64-byte bulk read holds three records.
#include <benchmark/benchmark.h>

#include <vector>

#include "devices/usbcan2/Usbcan2Wire.h"

using namespace usbcan2wire;

namespace {

// A stream of back-to-back receive records, as the adapter sends them.
std::vector<uint8_t> recordStream(size_t records, size_t garbageEvery) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i < records; ++i) {
    if (garbageEvery != 0 && i % garbageEvery == 0) {
      out.insert(out.end(), {0xFF, 0x01, 0x00});
    }
    const uint32_t stamp = 0x01000000u | static_cast<uint32_t>(i * 125);
    const uint32_t wireId = static_cast<uint32_t>(i & 0x7FF) << 5;
    uint8_t rec[kRecordSize] = {};
    for (int b = 0; b < 4; ++b) {
      rec[b] = static_cast<uint8_t>(stamp >> (8 * b));
      rec[7 + b] = static_cast<uint8_t>(wireId >> (8 * b));
    }
    rec[6] = static_cast<uint8_t>(0x08 | (i & 1) << 4);
    out.insert(out.end(), rec, rec + kRecordSize);
  }
  return out;
}

void BM_ReassembleAndDecode(benchmark::State &state) {
  const std::vector<uint8_t> stream = recordStream(3000, static_cast<size_t>(state.range(0)));
  RxReassembler reassembler;
  size_t frames = 0;
  for (auto _ : state) {
    for (size_t pos = 0; pos < stream.size(); pos += kReadChunk) {
      const size_t n = std::min(kReadChunk, stream.size() - pos);
      reassembler.feed(stream.data() + pos, n, [&](uint32_t channel, const _WCAN_CAN_OBJ &f) {
        benchmark::DoNotOptimize(f.id + channel);
        ++frames;
      });
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(frames));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
// Argument: a three-byte garbage run before every n-th record (0 for none).
BENCHMARK(BM_ReassembleAndDecode)->Arg(0)->Arg(10);

void BM_EncodeTxPacket(benchmark::State &state) {
  _WCAN_CAN_OBJ frames[kFramesPerPacket] = {};
  for (size_t i = 0; i < kFramesPerPacket; ++i) {
    frames[i].id = static_cast<unsigned>(0x100 + i);
    frames[i].externFlag = i & 1;
    frames[i].dataLen = 8;
  }
  std::array<uint8_t, kPacketCapacity> packet;
  for (auto _ : state) {
    benchmark::DoNotOptimize(encodeTxPacket(frames, kFramesPerPacket, 1, packet));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFramesPerPacket));
}
BENCHMARK(BM_EncodeTxPacket);

} // namespace
