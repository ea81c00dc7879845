// SPDX-License-Identifier: MIT
// The per-frame cost of the live views' statistics: the bit count, the
// channel load and the identifier table, with the traffic of a full CAN FD
// bus (many identifiers, changing data). At 56,000 frames a second the cost
// per frame times 56,000 is the share of a core `wcan top` spends on them;
// bench/monitor_cpu.sh measures the whole tool.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "common/BusStats.h"
#include "net/Protocol.h"

namespace {

using namespace wcantool;

std::vector<Frame> traffic(size_t count, unsigned ids, bool fd) {
  std::mt19937 rng(7);
  std::vector<Frame> frames(count);
  for (Frame &f : frames) {
    f.id = 0x100 + rng() % ids;
    f.fd = fd;
    f.brs = fd;
    f.len = fd ? 64 : 8;
    for (unsigned i = 0; i < f.len; ++i)
      f.data[i] = static_cast<uint8_t>(rng());
  }
  return frames;
}

void BM_BitsOnWire(benchmark::State &state) {
  const std::vector<Frame> frames = traffic(4096, 200, state.range(0) != 0);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(busbits::onWire(busbits::shapeOf(frames[i++ & 4095])));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BitsOnWire)->Arg(0)->Arg(1)->ArgNames({"fd"});

// What `wcan top` does per frame; busload does the first half.
void BM_TopPerFrame(benchmark::State &state) {
  const std::vector<Frame> frames = traffic(4096, 200, state.range(0) != 0);
  ChannelLoad load({500000, 2000000});
  IdTable table(10);
  size_t i = 0;
  int64_t t = 0;
  for (auto _ : state) {
    const Frame &f = frames[i++ & 4095];
    load.add(f);
    table.add(static_cast<unsigned>(i & 7), f, t += 18);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TopPerFrame)->Arg(0)->Arg(1)->ArgNames({"fd"});

// What a redraw of `top` costs with a big table: the 45 rows a 50-line
// window shows, out of 16,000 identifiers (8 buses of 2048), and the look at
// the time-out.
void BM_TopRedraw(benchmark::State &state) {
  std::mt19937 rng(7);
  IdTable table(10);
  int64_t t = 0;
  for (unsigned channel = 0; channel < 8; ++channel)
    for (uint32_t id = 0; id <= kMaxStandardId; ++id) {
      Frame f;
      f.id = id;
      f.len = 8;
      for (int n = 0; n < 3; ++n)
        table.add(channel, f, t += 1 + rng() % 100);
    }
  const SortKey key = static_cast<SortKey>(state.range(0));
  for (auto _ : state) {
    table.expire(t);
    benchmark::DoNotOptimize(table.rows(IdFilter{}, key, 45));
  }
}
BENCHMARK(BM_TopRedraw)->Arg(0)->Arg(1)->ArgNames({"key"})->Unit(benchmark::kMicrosecond);

// A frame element as a server writes it, back into a frame: what a tool with
// --connect does per frame before the statistics.
void BM_ParseFrameElement(benchmark::State &state) {
  std::vector<std::string> elements;
  for (const Frame &f : traffic(256, 2048, state.range(0) != 0)) {
    std::string text;
    net::appendRawFrame(text, {1700000000, 123456}, f);
    elements.push_back(text.substr(2, text.size() - 4)); // without "< " and " >"
  }
  Frame f;
  LogTime time;
  size_t i = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(net::parseFrameElement(elements[i++ & 255], f, time));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParseFrameElement)->Arg(0)->Arg(1)->ArgNames({"fd"});

} // namespace
