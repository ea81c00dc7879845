// SPDX-License-Identifier: MIT
#include "common/BusStats.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <tuple>

namespace wcantool {
namespace {

constexpr double kAverageWindows[3] = {60, 300, 900};

uint64_t entryKey(unsigned channel, uint32_t id, bool extended) {
  return uint64_t{channel} << 32 | uint64_t{extended} << 31 | id;
}

// A standard identifier's place among those of every channel.
size_t standardPlace(unsigned channel, uint32_t id) {
  return size_t{channel} * (kMaxStandardId + 1) + (id & kMaxStandardId);
}

uint64_t changedBytes(const IdEntry &before, const Frame &f) {
  uint64_t mask = 0;
  for (unsigned i = 0; i < f.len; ++i)
    if (i >= before.len || before.data[i] != f.data[i])
      mask |= uint64_t{1} << i;
  return mask;
}

bool parseRule(std::string_view word, bool &add, uint32_t &id, uint32_t &mask, std::string &error) {
  if (word.size() < 2 || (word[0] != '+' && word[0] != '-')) {
    error = "a filter is +ID[/MASK] or -ID[/MASK], not '" + std::string(word) + "'";
    return false;
  }
  add = word[0] == '+';
  word.remove_prefix(1);
  const size_t slash = word.find('/');
  const std::string_view idText = word.substr(0, slash);
  if (!parseHexNumber(idText, 8, id) || id > kMaxExtendedId) {
    error = "bad identifier '" + std::string(idText) + "' in filter (hex, up to 1FFFFFFF)";
    return false;
  }
  mask = idText.size() <= 3 ? kMaxStandardId : kMaxExtendedId;
  if (slash == std::string_view::npos)
    return true;
  const std::string_view maskText = word.substr(slash + 1);
  if (!parseHexNumber(maskText, 8, mask) || mask > kMaxExtendedId) {
    error = "bad mask '" + std::string(maskText) + "' in filter (hex, up to 1FFFFFFF)";
    return false;
  }
  return true;
}

} // namespace

std::string formatRate(uint32_t bps) {
  char buf[32];
  if (bps >= 1000000 && bps % 100000 == 0)
    std::snprintf(buf, sizeof buf, "%gM", bps / 1e6);
  else if (bps >= 1000)
    std::snprintf(buf, sizeof buf, "%gk", std::round(bps / 100.0) / 10.0);
  else
    std::snprintf(buf, sizeof buf, "%u", bps);
  return buf;
}

std::string formatRates(const BusRates &rates) {
  std::string s = formatRate(rates.nominal);
  if (rates.data != 0)
    s += "/" + formatRate(rates.data);
  return s;
}

void ChannelLoad::add(const Frame &frame) {
  const busbits::FrameShape shape = busbits::shapeOf(frame);
  const busbits::FrameBits bits = busbits::onWire(shape);
  ++current_.frames;
  current_.bits += bits.total();
  current_.payloadBits += 8u * busbits::payloadBytes(shape);
  current_.dataPhaseBits += bits.data;
  ++totalFrames_;
}

LoadInterval ChannelLoad::close(double seconds) {
  // The bits' time once per interval rather than two divisions a frame.
  const uint32_t dataRate = rates_.data != 0 ? rates_.data : rates_.nominal;
  current_.busSeconds =
      static_cast<double>(current_.bits - current_.dataPhaseBits) / rates_.nominal +
      static_cast<double>(current_.dataPhaseBits) / dataRate;
  current_.seconds = seconds;
  last_ = current_;
  current_ = LoadInterval{};
  const double load = last_.percent();
  if (!closedAny_) {
    min_ = max_ = load;
    std::fill(std::begin(averages_), std::end(averages_), load);
    closedAny_ = true;
    return last_;
  }
  min_ = std::min(min_, load);
  max_ = std::max(max_, load);
  for (int i = 0; i < 3; ++i) {
    const double keep = std::exp(-seconds / kAverageWindows[i]);
    averages_[i] = averages_[i] * keep + load * (1 - keep);
  }
  return last_;
}

const char *kindName(FrameKind kind) {
  switch (kind) {
  case FrameKind::Remote:
    return "RTR";
  case FrameKind::Fd:
    return "FD";
  case FrameKind::FdBrs:
    return "FD+BRS";
  case FrameKind::Classic:
    break;
  }
  return "CAN";
}

FrameKind kindOf(const Frame &f) {
  if (f.fd)
    return f.brs ? FrameKind::FdBrs : FrameKind::Fd;
  return f.remote ? FrameKind::Remote : FrameKind::Classic;
}

bool IdFilter::add(std::string_view text, std::string &error) {
  std::vector<Rule> added;
  size_t pos = 0;
  while (pos < text.size()) {
    const size_t end = std::min(text.find_first_of(" ,", pos), text.size());
    if (end > pos) {
      Rule r{};
      if (!parseRule(text.substr(pos, end - pos), r.add, r.id, r.mask, error))
        return false;
      added.push_back(r);
    }
    pos = end + 1;
  }
  if (added.empty()) {
    error = "a filter is +ID[/MASK] or -ID[/MASK]";
    return false;
  }
  rules_.insert(rules_.end(), added.begin(), added.end());
  return true;
}

bool IdFilter::passes(uint32_t id) const {
  bool pass = rules_.empty() || !rules_.front().add;
  for (const Rule &r : rules_)
    if ((id & r.mask) == (r.id & r.mask))
      pass = r.add;
  return pass;
}

std::string IdFilter::describe() const {
  std::string s;
  char buf[32];
  for (const Rule &r : rules_) {
    std::snprintf(buf, sizeof buf, "%s%c%X/%X", s.empty() ? "" : " ", r.add ? '+' : '-', r.id,
                  r.mask);
    s += buf;
  }
  return s;
}

double IdEntry::jitterUs() const {
  return count > 2 ? std::sqrt(periodM2 / static_cast<double>(count - 2)) : 0.0;
}

double IdEntry::rate() const { return meanPeriodUs > 0 ? 1e6 / meanPeriodUs : 0.0; }

const char *sortName(SortKey key) {
  switch (key) {
  case SortKey::Rate:
    return "rate";
  case SortKey::Count:
    return "count";
  case SortKey::Age:
    return "age";
  case SortKey::Id:
    break;
  }
  return "id";
}

size_t IdTable::slotOf(uint64_t key) const {
  // Fibonacci hashing spreads neighbouring identifiers over the table.
  const unsigned bits = static_cast<unsigned>(__builtin_ctzll(slots_.size()));
  size_t slot = static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> (64 - bits));
  const size_t mask = slots_.size() - 1;
  while (slots_[slot].index != 0 && slots_[slot].key != key)
    slot = (slot + 1) & mask;
  return slot;
}

uint32_t &IdTable::standardIndex(unsigned channel, uint32_t id) {
  const size_t at = standardPlace(channel, id);
  if (at >= standard_.size())
    standard_.resize(standardPlace(channel + 1, 0), 0);
  return standard_[at];
}

uint32_t &IdTable::extendedIndex(uint64_t key) {
  constexpr size_t kFirstSlots = 256;
  if (slots_.empty())
    slots_.resize(kFirstSlots);
  size_t slot = slotOf(key);
  // At most half full, so that a miss ends soon.
  if (slots_[slot].index == 0 && 2 * (extendedCount_ + 1) > slots_.size()) {
    reindex(2 * slots_.size());
    slot = slotOf(key);
  }
  slots_[slot].key = key;
  return slots_[slot].index;
}

void IdTable::reindex(size_t slotCount) {
  std::fill(standard_.begin(), standard_.end(), 0);
  slots_.assign(slotCount, Slot{});
  extendedCount_ = 0;
  for (size_t i = 0; i < entries_.size(); ++i) {
    const IdEntry &e = entries_[i];
    const auto index = static_cast<uint32_t>(i + 1);
    if (e.extended) {
      slots_[slotOf(entryKey(e.channel, e.id, true))] = {entryKey(e.channel, e.id, true), index};
      ++extendedCount_;
    } else {
      standardIndex(e.channel, e.id) = index;
    }
  }
}

IdEntry &IdTable::entryFor(unsigned channel, const Frame &f) {
  uint32_t &index =
      f.extended ? extendedIndex(entryKey(channel, f.id, true)) : standardIndex(channel, f.id);
  if (index != 0)
    return entries_[index - 1];
  entries_.emplace_back();
  index = static_cast<uint32_t>(entries_.size());
  extendedCount_ += f.extended ? 1 : 0;
  IdEntry &e = entries_.back();
  e.channel = channel;
  e.id = f.id;
  e.extended = f.extended;
  return e;
}

void IdTable::prefetchPlace(unsigned channel, const Frame &f) const {
  const size_t at = standardPlace(channel, f.id);
  if (!f.extended && at < standard_.size())
    __builtin_prefetch(&standard_[at]);
}

void IdTable::prefetch(unsigned channel, const Frame &f) const {
  const size_t at = standardPlace(channel, f.id);
  if (f.extended || at >= standard_.size() || standard_[at] == 0)
    return;
  __builtin_prefetch(&entries_[standard_[at] - 1], 1);
}

void IdTable::add(unsigned channel, const Frame &f, int64_t timeUs) {
  if (entries_.empty())
    oldestUs_ = timeUs;
  IdEntry &e = entryFor(channel, f);
  if (e.count == 0) {
    e.firstUs = timeUs;
    e.changed = 0;
  } else {
    e.changed = changedBytes(e, f);
    // Welford's update over the intervals: the first frame has none.
    const double period = static_cast<double>(timeUs - e.lastUs);
    const double n = static_cast<double>(e.count);
    const double delta = period - e.meanPeriodUs;
    e.meanPeriodUs += delta / n;
    e.periodM2 += delta * (period - e.meanPeriodUs);
  }
  e.kind = kindOf(f);
  e.len = f.len;
  std::copy_n(f.data.begin(), busbits::payloadBytes(busbits::shapeOf(f)), e.data.begin());
  e.lastUs = timeUs;
  ++e.count;
  // Time stamps of several channels need not rise together.
  oldestUs_ = std::min(oldestUs_, timeUs);
}

void IdTable::expire(int64_t nowUs) {
  if (timeoutUs_ <= 0 || entries_.empty() || nowUs - oldestUs_ < timeoutUs_)
    return;
  const auto gone = std::remove_if(entries_.begin(), entries_.end(), [&](const IdEntry &e) {
    return nowUs - e.lastUs >= timeoutUs_;
  });
  if (gone != entries_.end()) {
    entries_.erase(gone, entries_.end());
    reindex(slots_.size());
  }
  oldestUs_ = nowUs;
  for (const IdEntry &e : entries_)
    oldestUs_ = std::min(oldestUs_, e.lastUs);
}

void IdTable::clear() {
  entries_.clear();
  standard_.clear();
  slots_.clear();
  extendedCount_ = 0;
}

bool IdTable::faded(const IdEntry &e, int64_t nowUs) const {
  return timeoutUs_ > 0 && nowUs - e.lastUs >= timeoutUs_ / 2;
}

std::vector<const IdEntry *> IdTable::rows(const IdFilter &filter, SortKey key,
                                           size_t ordered) const {
  std::vector<const IdEntry *> rows;
  rows.reserve(entries_.size());
  for (const IdEntry &e : entries_)
    if (filter.passes(e.id))
      rows.push_back(&e);
  auto byId = [](const IdEntry *a, const IdEntry *b) {
    return std::tie(a->channel, a->extended, a->id) < std::tie(b->channel, b->extended, b->id);
  };
  auto order = [&](const IdEntry *a, const IdEntry *b) {
    switch (key) {
    case SortKey::Rate:
      if (a->rate() != b->rate())
        return a->rate() > b->rate();
      break;
    case SortKey::Count:
      if (a->count != b->count)
        return a->count > b->count;
      break;
    case SortKey::Age:
      if (a->lastUs != b->lastUs)
        return a->lastUs > b->lastUs;
      break;
    case SortKey::Id:
      break;
    }
    return byId(a, b);
  };
  if (ordered >= rows.size())
    std::sort(rows.begin(), rows.end(), order);
  else
    std::partial_sort(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(ordered), rows.end(),
                      order);
  return rows;
}

std::string formatId(uint32_t id, bool extended) {
  char buf[16];
  std::snprintf(buf, sizeof buf, extended ? "%08X" : "%03X", id);
  return buf;
}

} // namespace wcantool
