// SPDX-License-Identifier: MIT
// Decoding frames with a database of 200 messages of eight signals each, in
// both byte orders, some signed, scaled, with value tables and multiplexing:
// the work `wcan dump --dbc` adds per frame.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "dbc/Dbc.h"

using namespace wcantool::dbc;

namespace {

constexpr unsigned kMessages = 200;

std::string generatedDbc() {
  std::string text = "VERSION \"\"\nNS_ :\n\tCM_\n\nBS_:\n\nBU_: Ecu\n\n";
  for (unsigned i = 0; i < kMessages; ++i) {
    const unsigned id = 0x100 + i * 3;
    const std::string n = std::to_string(i);
    text += "BO_ " + std::to_string(id) + " Message" + n + ": 8 Ecu\n";
    if (i % 10 == 0) {
      text += " SG_ Mode" + n + " M : 0|4@1+ (1,0) [0|15] \"\" Ecu\n";
      text += " SG_ LowA" + n + " m0 : 4|12@1+ (0.1,0) [0|0] \"V\" Ecu\n";
      text += " SG_ LowB" + n + " m1 : 4|12@1- (0.5,0) [0|0] \"A\" Ecu\n";
    } else {
      text += " SG_ Speed" + n + " : 0|16@1+ (0.125,0) [0|8000] \"rpm\" Ecu\n";
    }
    text += " SG_ Temp" + n + " : 23|10@0- (0.25,-40) [-168|87.75] \"degC\" Ecu\n";
    text += " SG_ State" + n + " : 29|3@1+ (1,0) [0|7] \"\" Ecu\n";
    text += " SG_ Flag" + n + " : 32|1@1+ (1,0) [0|1] \"\" Ecu\n";
    text += " SG_ Level" + n + " : 33|7@1+ (1,0) [0|100] \"%\" Ecu\n";
    text += " SG_ Pressure" + n + " : 47|12@0+ (0.5,0) [0|2047.5] \"kPa\" Ecu\n";
    text += " SG_ Counter" + n + " : 52|4@1+ (1,0) [0|15] \"\" Ecu\n";
    text += " SG_ Check" + n + " : 63|8@0+ (1,0) [0|255] \"\" Ecu\n\n";
  }
  for (unsigned i = 0; i < kMessages; ++i)
    text += "VAL_ " + std::to_string(0x100 + i * 3) + " State" + std::to_string(i) +
            " 0 \"Off\" 1 \"Idle\" 2 \"Run\" 3 \"Fault\" ;\n";
  return text;
}

struct TestFrame {
  uint32_t id;
  uint8_t data[8];
};

std::vector<TestFrame> randomFrames() {
  std::mt19937 rng(1);
  std::vector<TestFrame> frames(4096);
  for (TestFrame &f : frames) {
    f.id = 0x100 + static_cast<uint32_t>(rng() % kMessages) * 3;
    for (uint8_t &b : f.data)
      b = static_cast<uint8_t>(rng());
  }
  return frames;
}

void BM_ParseDbc200(benchmark::State &state) {
  const std::string text = generatedDbc();
  for (auto _ : state) {
    std::vector<std::string> warnings;
    benchmark::DoNotOptimize(Database::parse(text, warnings));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ParseDbc200);

// The database and frames both decoding benchmarks walk through.
struct DecodeSetup {
  std::vector<std::string> warnings;
  Database db = Database::parse(generatedDbc(), warnings);
  std::vector<TestFrame> frames = randomFrames();
  std::vector<DecodedSignal> out;
  size_t next = 0;

  const Message *decodeNext() {
    const TestFrame &f = frames[next++ % frames.size()];
    return db.decode(f.id, false, f.data, sizeof f.data, out);
  }
};

void BM_DecodeFrame(benchmark::State &state) {
  DecodeSetup setup;
  for (auto _ : state) {
    benchmark::DoNotOptimize(setup.decodeNext());
    benchmark::DoNotOptimize(setup.out.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_DecodeFrame);

// Decoding plus the text line `wcan dump --dbc` prints.
void BM_DecodeAndFormatFrame(benchmark::State &state) {
  DecodeSetup setup;
  for (auto _ : state) {
    const Message *m = setup.decodeNext();
    benchmark::DoNotOptimize(formatDecoded(*m, setup.out));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_DecodeAndFormatFrame);

} // namespace
