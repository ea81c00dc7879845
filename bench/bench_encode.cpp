// SPDX-License-Identifier: MIT
// Transmit encoding of the CAN FD adapter: full batches of ten records into
// one bulk data frame (the classic adapter's packet encoding is measured
// beside its decoder in bench_usbcan2_decode).
#include <benchmark/benchmark.h>

#include <array>

#include "devices/usbcanfd/UsbCanFdWire.h"

using namespace usbcanfd;

namespace {

template <class Obj> std::array<Obj, kMaxBatch> makeFrames(uint8_t dataLen) {
  std::array<Obj, kMaxBatch> frames{};
  for (unsigned i = 0; i < kMaxBatch; ++i) {
    frames[i].id = 0x100 + i;
    frames[i].dataLen = dataLen;
    for (unsigned b = 0; b < dataLen; ++b) {
      frames[i].data[b] = static_cast<uint8_t>(i + b);
    }
  }
  return frames;
}

void BM_EncodeCanFdBatch(benchmark::State &state) {
  auto frames = makeFrames<_WCAN_CANFD_OBJ>(64);
  TxFrame out{};
  for (auto _ : state) {
    benchmark::DoNotOptimize(encodeCanFdBatch(0x00, 1, frames.data(), kMaxBatch, out));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kMaxBatch);
}
BENCHMARK(BM_EncodeCanFdBatch);

void BM_EncodeCanBatch(benchmark::State &state) {
  auto frames = makeFrames<_WCAN_CAN_OBJ>(8);
  TxFrame out{};
  for (auto _ : state) {
    benchmark::DoNotOptimize(encodeCanBatch(0x00, 1, frames.data(), kMaxBatch, out));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kMaxBatch);
}
BENCHMARK(BM_EncodeCanBatch);

} // namespace
