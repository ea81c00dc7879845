// SPDX-License-Identifier: MIT
// What `wcan dump` shows and how: candump's id filters and its human-readable
// lines with absolute, delta, relative or date-and-time stamps and an ASCII
// column. The `-L` log lines are written by formatLogLine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/FrameSyntax.h"

namespace wcantool {

// candump's "ID:MASK" (passes when the ids agree under the mask) and
// "ID~MASK" (passes when they do not). Ids compare as SocketCAN's can_id,
// flags included: an id written with 8 hex digits carries the extended-frame
// flag (0x80000000), which counts only where the mask has it, so "123:7FF"
// passes extended ids ending in 0x123 too and "123:C00007FF" only the
// standard data frame.
struct IdFilter {
  uint32_t id = 0;
  uint32_t mask = 0;
  bool inverted = false;
};

// Throws UsageError naming the filter.
IdFilter parseIdFilter(std::string_view text);

// A frame passes when it passes any of the filters, or when there are none.
class FrameFilter {
public:
  explicit FrameFilter(std::vector<IdFilter> filters = {}) : filters_(std::move(filters)) {}
  bool passes(const Frame &frame) const;

private:
  std::vector<IdFilter> filters_;
};

// The frame's id as SocketCAN's can_id, flags included.
uint32_t socketCanId(const Frame &frame);

enum class StampMode { None, Absolute, Delta, Relative, Date };

// Throws UsageError for anything but a, d, z or A.
StampMode parseStampMode(std::string_view text);

// One human-readable line per frame, as candump prints them:
//   (0.000120)  wcan41-0-1  123   [4]  DE AD BE EF   '....'
class FrameView {
public:
  FrameView(StampMode stamps, bool ascii) : stamps_(stamps), ascii_(ascii) {}
  // Without a line end.
  std::string line(int64_t epochUs, std::string_view ifname, const Frame &frame);

private:
  std::string stamp(int64_t epochUs);

  StampMode stamps_;
  bool ascii_;
  std::optional<int64_t> first_;
  std::optional<int64_t> previous_;
};

} // namespace wcantool
