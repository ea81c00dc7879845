// SPDX-License-Identifier: MIT
#include "cli/Generator.h"

#include <array>

#include "common/Args.h"

namespace wcantool {
namespace {

constexpr std::array<uint8_t, 16> kFdLengths = {0, 1,  2,  3,  4,  5,  6,  7,
                                                8, 12, 16, 20, 24, 32, 48, 64};

uint32_t maxIdOf(const GenSpec &spec) { return spec.extended ? kMaxExtendedId : kMaxStandardId; }

unsigned lengthChoices(const GenSpec &spec) {
  return spec.fd ? static_cast<unsigned>(kFdLengths.size()) : kMaxClassicLen + 1;
}

unsigned lengthAt(const GenSpec &spec, unsigned i) { return spec.fd ? kFdLengths[i] : i; }

} // namespace

void parseGenId(const std::string &text, GenSpec &spec) {
  if (text == "r") {
    spec.idMode = GenMode::Random;
    return;
  }
  if (text == "i") {
    spec.idMode = GenMode::Increment;
    spec.id = 0;
    return;
  }
  spec.idMode = GenMode::Fixed;
  spec.id = static_cast<uint32_t>(parseHex(text, "--id (hex)", 0, maxIdOf(spec)));
}

void parseGenLen(const std::string &text, GenSpec &spec) {
  if (text == "r") {
    spec.lenMode = GenMode::Random;
    return;
  }
  if (text == "i") {
    spec.lenMode = GenMode::Increment;
    return;
  }
  spec.lenMode = GenMode::Fixed;
  spec.len = parseUnsigned(text, "--len", 0, spec.fd ? kMaxFdLen : kMaxClassicLen);
  if (spec.fd && !isFdLength(spec.len))
    throw UsageError{"--len of a CAN FD frame must be 0..8, 12, 16, 20, 24, 32, 48 or 64"};
}

FrameGenerator::FrameGenerator(const GenSpec &spec, uint32_t seed)
    : spec_(spec), rng_(seed), nextId_(spec.id) {}

unsigned FrameGenerator::nextLen() {
  switch (spec_.lenMode) {
  case GenMode::Fixed:
    return spec_.len;
  case GenMode::Increment: {
    unsigned len = lengthAt(spec_, lenStep_);
    lenStep_ = (lenStep_ + 1) % lengthChoices(spec_);
    return len;
  }
  case GenMode::Random:
    break;
  }
  return lengthAt(spec_,
                  std::uniform_int_distribution<unsigned>(0, lengthChoices(spec_) - 1)(rng_));
}

Frame FrameGenerator::next() {
  Frame f;
  f.extended = spec_.extended;
  f.fd = spec_.fd;
  f.brs = spec_.fd && spec_.brs;
  switch (spec_.idMode) {
  case GenMode::Fixed:
    f.id = spec_.id;
    break;
  case GenMode::Increment:
    f.id = nextId_;
    nextId_ = nextId_ == maxIdOf(spec_) ? 0 : nextId_ + 1;
    break;
  case GenMode::Random:
    f.id = std::uniform_int_distribution<uint32_t>(0, maxIdOf(spec_))(rng_);
    break;
  }
  f.len = static_cast<uint8_t>(nextLen());
  std::uniform_int_distribution<unsigned> byte(0, 255);
  for (unsigned i = 0; i < f.len; ++i)
    f.data[i] = static_cast<uint8_t>(byte(rng_));
  return f;
}

} // namespace wcantool
