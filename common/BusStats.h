// SPDX-License-Identifier: MIT
// What a live view of a bus shows, computed from the frames alone: the load
// of each channel and a table of the identifiers seen on it. `wcan busload`
// and `wcan top` print it; anything that sees the frames with their time
// stamps can compute the same table. Times are microseconds on any one
// clock; nothing here reads a clock or needs the library.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/BusBits.h"
#include "common/FrameSyntax.h"

namespace wcantool {

// A channel's bit rates in bit/s; `data` is the CAN FD data-phase rate.
struct BusRates {
  uint32_t nominal = 500000;
  uint32_t data = 0; // 0: no data-phase rate (a classic bus)
};

// "500k", "2M", "83.3k".
std::string formatRate(uint32_t bitsPerSecond);
// "500k" or "500k/2M".
std::string formatRates(const BusRates &rates);

// One interval of one channel, as canbusload prints it.
struct LoadInterval {
  uint64_t frames = 0;
  uint64_t bits = 0;        // on the wire, stuff bits and interframe space included
  uint64_t payloadBits = 0; // data bytes only
  uint64_t dataPhaseBits = 0;
  double busSeconds = 0; // the time those bits held the bus (set at the close)
  double seconds = 0;    // the interval's length
  double percent() const { return seconds > 0 ? 100.0 * busSeconds / seconds : 0.0; }
  double framesPerSecond() const { return seconds > 0 ? frames / seconds : 0.0; }
};

// Load of one channel: frames are added as they come and an interval is
// closed at every report. The averages decay as the load averages of a Unix
// system do, over 1, 5 and 15 minutes.
class ChannelLoad {
public:
  explicit ChannelLoad(BusRates rates = {}) : rates_(rates) {}

  const BusRates &rates() const { return rates_; }
  void add(const Frame &frame);
  // Ends the interval of `seconds` and starts the next.
  LoadInterval close(double seconds);

  const LoadInterval &last() const { return last_; }
  uint64_t totalFrames() const { return totalFrames_; }
  double peak() const { return max_; } // highest interval load, percent
  double min() const { return min_; }
  double max() const { return max_; }
  // Averages over 1, 5 and 15 minutes, percent.
  const double (&averages() const)[3] { return averages_; }

private:
  BusRates rates_;
  LoadInterval current_;
  LoadInterval last_;
  uint64_t totalFrames_ = 0;
  bool closedAny_ = false;
  double min_ = 0;
  double max_ = 0;
  double averages_[3] = {0, 0, 0};
};

enum class FrameKind : uint8_t { Classic, Remote, Fd, FdBrs };
const char *kindName(FrameKind kind); // "CAN", "RTR", "FD", "FD+BRS"
FrameKind kindOf(const Frame &frame);

// `+ID[/MASK]` or `-ID[/MASK]`, hex, applied in order: the last rule that
// matches an identifier decides. With no rules every identifier passes; when
// the first rule adds, only what rules add passes. A mask of a 3-digit
// identifier defaults to 0x7FF, else to 0x1FFFFFFF.
class IdFilter {
public:
  // Adds rules separated by blanks or commas; false with the reason for a bad
  // one (then nothing is added).
  bool add(std::string_view text, std::string &error);
  void clear() { rules_.clear(); }
  bool empty() const { return rules_.empty(); }
  bool passes(uint32_t id) const;
  std::string describe() const; // the rules as typed, blank-separated

private:
  struct Rule {
    bool add;
    uint32_t id;
    uint32_t mask;
  };
  std::vector<Rule> rules_;
};

// One identifier on one channel. Laid out for a table of thousands that
// every frame updates at random: what a classic frame touches lies in the
// first cache line.
struct alignas(64) IdEntry {
  unsigned channel = 0;
  uint32_t id = 0;
  int64_t lastUs = 0;
  uint64_t count = 0;
  // Intervals between frames: running mean and the sum of squared
  // deviations (Welford), for the mean period and its jitter.
  double meanPeriodUs = 0;
  double periodM2 = 0;
  uint64_t changed = 0; // bytes (bit i: byte i) that differ from the previous frame
  bool extended = false;
  FrameKind kind = FrameKind::Classic;
  uint8_t len = 0;
  std::array<uint8_t, 64> data{};
  int64_t firstUs = 0;

  double jitterUs() const; // standard deviation of the period
  double rate() const;     // frames per second from the mean period
};

enum class SortKey { Id, Rate, Count, Age };
const char *sortName(SortKey key);

// The identifiers seen per channel. Entries unseen for half the time-out
// fade, and leave at the time-out (0: never). Every frame costs one lookup
// in a flat index; the entries themselves lie in one array.
class IdTable {
public:
  explicit IdTable(double timeoutSeconds = 0) : timeoutUs_(toUs(timeoutSeconds)) {}

  void add(unsigned channel, const Frame &frame, int64_t timeUs);
  // Asks the processor for the entry a frame will update: with thousands of
  // identifiers on a bus, and the caches cold after every pause of a
  // polling tool, every add() would otherwise wait for memory. Called a few
  // frames ahead of add() (and `place` a few before that) they hide that
  // wait. Standard identifiers only: theirs is a lookup without a search.
  void prefetchPlace(unsigned channel, const Frame &frame) const;
  void prefetch(unsigned channel, const Frame &frame) const;
  // Drops the entries timed out by `nowUs`; looks at them only when the
  // oldest may have.
  void expire(int64_t nowUs);
  void clear();
  size_t size() const { return entries_.size(); }

  bool faded(const IdEntry &e, int64_t nowUs) const;
  // The entries that pass the filter, the first `ordered` of them in this
  // order (ties by channel and identifier; rate and count highest first, age
  // youngest first) and the rest in none: a screen shows only the first few
  // of many thousand. Valid until the table changes.
  std::vector<const IdEntry *> rows(const IdFilter &filter, SortKey key,
                                    size_t ordered = SIZE_MAX) const;

private:
  static int64_t toUs(double seconds) { return static_cast<int64_t>(seconds * 1e6); }
  IdEntry &entryFor(unsigned channel, const Frame &frame);
  uint32_t &standardIndex(unsigned channel, uint32_t id);
  uint32_t &extendedIndex(uint64_t key);
  size_t slotOf(uint64_t key) const;
  void reindex(size_t slotCount);

  std::vector<IdEntry> entries_;
  // Where an entry lies: its index in entries_ + 1, 0 for none. Standard
  // identifiers have 2048 places per channel (what a bus carries at most);
  // extended ones an open-addressing table with the keys beside the places,
  // so that a lookup touches no other entry.
  std::vector<uint32_t> standard_;
  struct Slot {
    uint64_t key = 0;
    uint32_t index = 0;
  };
  std::vector<Slot> slots_;
  size_t extendedCount_ = 0;
  int64_t oldestUs_ = 0; // no entry was seen before this
  int64_t timeoutUs_;
};

// Identifier as cansniffer and candump print it: 3 hex digits, or 8 when
// extended.
std::string formatId(uint32_t id, bool extended);

} // namespace wcantool
