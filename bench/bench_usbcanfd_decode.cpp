// SPDX-License-Identifier: MIT
// Receive-path throughput of the CAN FD adapter: stream re-assembly, record
// decoding and the push into the per-channel queues, fed with 4096-byte
// reads as the receive thread gets them.
#include <benchmark/benchmark.h>

#include <vector>

#include "devices/usbcanfd/UsbCanFdWire.h"
#include "platform/FrameQueues.h"

using namespace usbcanfd;

namespace {

// A continuous stream of full data frames (10 records each) spread over
// all 8 channels, long enough to be cut into many 4096-byte reads.
std::vector<uint8_t> makeStream(bool fd, size_t frames) {
  const size_t recordLen = fd ? kCanFdRecordLen : kCanRecordLen;
  std::vector<uint8_t> stream;
  uint32_t id = 0;
  for (size_t f = 0; f < frames; ++f) {
    const size_t payload = recordLen * kMaxBatch;
    const uint8_t header[7] = {
        0x55,     0xF2, 0, 0, static_cast<uint8_t>(payload), static_cast<uint8_t>(payload >> 8),
        kMaxBatch};
    stream.insert(stream.end(), header, header + 7);
    for (unsigned r = 0; r < kMaxBatch; ++r, ++id) {
      std::vector<uint8_t> rec(recordLen, 0);
      rec[0] = static_cast<uint8_t>((id % 8) << 4);
      rec[1] = fd ? 0x11 : 0x04;
      rec[6] = static_cast<uint8_t>(id);
      rec[7] = static_cast<uint8_t>(id >> 8);
      rec[10] = fd ? 64 : 8;
      for (size_t i = 11; i < recordLen; ++i) {
        rec[i] = static_cast<uint8_t>(i + id);
      }
      stream.insert(stream.end(), rec.begin(), rec.end());
    }
  }
  return stream;
}

void drain(FrameQueues &queues) {
  for (unsigned ch = 0; ch < kChannelSlots; ++ch) {
    queues.clear(ch);
  }
}

void BM_ReceiveStream(benchmark::State &state, bool fd) {
  const std::vector<uint8_t> stream = makeStream(fd, 2000);
  const size_t recordsPerStream = 2000 * kMaxBatch;
  FrameQueues queues(kChannelSlots);
  StreamAssembler assembler;
  size_t records = 0;
  for (auto _ : state) {
    for (size_t pos = 0; pos < stream.size(); pos += kStreamBufferLen) {
      const size_t n = std::min(kStreamBufferLen, stream.size() - pos);
      FrameQueues::Producer producer(queues);
      assembler.feed(stream.data() + pos, n, producer);
    }
    records += recordsPerStream;
    state.PauseTiming();
    drain(queues);
    state.ResumeTiming();
  }
  state.counters["records/s"] =
      benchmark::Counter(static_cast<double>(records), benchmark::Counter::kIsRate);
}

void BM_ReceiveCanFd(benchmark::State &state) { BM_ReceiveStream(state, true); }
void BM_ReceiveClassic(benchmark::State &state) { BM_ReceiveStream(state, false); }

// The consumer side: moving queued records out to the caller in batches.
void BM_TakeCanFd(benchmark::State &state) {
  const std::vector<uint8_t> stream = makeStream(true, 200);
  FrameQueues queues(kChannelSlots);
  StreamAssembler assembler;
  std::vector<_WCAN_CANFD_OBJ> out(256);
  size_t records = 0;
  for (auto _ : state) {
    state.PauseTiming();
    {
      FrameQueues::Producer producer(queues);
      assembler.feed(stream.data(), stream.size(), producer);
    }
    state.ResumeTiming();
    for (unsigned ch = 0; ch < kChannelSlots; ++ch) {
      int n;
      while ((n = queues.take(ch, out.data(), static_cast<unsigned>(out.size()), 0)) > 0) {
        records += static_cast<size_t>(n);
      }
    }
  }
  state.counters["records/s"] =
      benchmark::Counter(static_cast<double>(records), benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(BM_ReceiveCanFd)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReceiveClassic)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TakeCanFd)->Unit(benchmark::kMicrosecond);
