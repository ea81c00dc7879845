// SPDX-License-Identifier: MIT
// Frames for `wcan gen`: ids and lengths fixed, random or incrementing, data
// random, in the manner of the usual traffic generators.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "common/FrameSyntax.h"

namespace wcantool {

enum class GenMode { Fixed, Random, Increment };

struct GenSpec {
  GenMode idMode = GenMode::Random;
  uint32_t id = 0;
  GenMode lenMode = GenMode::Random;
  unsigned len = 0;
  bool fd = false;
  bool brs = false;
  bool extended = false;
};

// Reads the --id and --len arguments ("r", "i", or a hex id / decimal length)
// into spec, whose fd and extended fields must already be set; throws
// UsageError for ids or lengths the frame format cannot carry.
void parseGenId(const std::string &text, GenSpec &spec);
void parseGenLen(const std::string &text, GenSpec &spec);

class FrameGenerator {
public:
  FrameGenerator(const GenSpec &spec, uint32_t seed);
  Frame next();

private:
  unsigned nextLen();

  GenSpec spec_;
  std::mt19937 rng_;
  uint32_t nextId_;
  unsigned lenStep_ = 0;
};

} // namespace wcantool
