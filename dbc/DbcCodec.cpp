// SPDX-License-Identifier: MIT
// Signals in and out of frame bytes. Decoding reads a signal with one 64-bit
// load, a shift and a mask from a layout prepared when the file was read;
// encoding, which is rare, places the bits one by one.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "dbc/Dbc.h"

namespace wcantool::dbc {
namespace {

constexpr uint32_t kExtendedFlag = 0x80000000u;
constexpr uint32_t kMaxFrameId = 0x1FFFFFFF;
constexpr size_t kMaxData = 64;
// Frame bytes plus the eight a load at the last byte may read.
constexpr size_t kPaddedSize = kMaxData + 8;

uint32_t keyOf(uint32_t id, bool extended) { return id | (extended ? kExtendedFlag : 0); }

uint64_t load64(const uint8_t *p, bool bigEndian) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return bigEndian ? __builtin_bswap64(v) : v;
#else
  return bigEndian ? v : __builtin_bswap64(v);
#endif
}

// Intel bits count up from the start bit; Motorola bits are numbered in
// reading order (byte 0 bit 7 first) from the most significant one.
unsigned motorolaMsbPosition(unsigned startBit) { return startBit / 8 * 8 + (7 - startBit % 8); }

uint64_t extractRaw(const Signal &s, const uint8_t *padded) {
  const BitLayout &l = s.layout;
  const uint8_t *p = padded + l.firstByte;
  uint64_t v;
  if (s.order == ByteOrder::Intel) {
    v = load64(p, false) >> l.shift;
    if (l.ninthByte)
      v |= static_cast<uint64_t>(p[8]) << (64 - l.shift);
  } else {
    v = load64(p, true);
    v = l.ninthByte ? (v << l.shift) | (p[8] >> (8 - l.shift)) : v >> l.shift;
  }
  return v & l.mask;
}

void insertRaw(const Signal &s, uint64_t raw, uint8_t *data) {
  const unsigned msb = motorolaMsbPosition(s.startBit);
  for (unsigned i = 0; i < s.length; ++i) {
    unsigned byte, bit;
    if (s.order == ByteOrder::Intel) {
      byte = (s.startBit + i) / 8;
      bit = (s.startBit + i) % 8;
    } else {
      const unsigned pos = msb + s.length - 1 - i;
      byte = pos / 8;
      bit = 7 - pos % 8;
    }
    const auto bitMask = static_cast<uint8_t>(1u << bit);
    data[byte] =
        static_cast<uint8_t>((raw >> i) & 1 ? data[byte] | bitMask : data[byte] & ~bitMask);
  }
}

std::string formatNumber(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.10g", v);
  return text;
}

// The raw bits for a physical value, or EncodeError.
uint64_t rawFor(const Signal &s, double phys) {
  const std::string what = s.name + "=" + formatNumber(phys);
  if (!std::isfinite(phys))
    throw EncodeError(what + " is not a number");
  const double slack = 1e-9 * std::max(1.0, std::fabs(s.factor));
  if (s.hasRange() && (phys < s.minimum - slack || phys > s.maximum + slack))
    throw EncodeError(what + " is outside " + formatNumber(s.minimum) + ".." +
                      formatNumber(s.maximum));
  if (s.factor == 0)
    throw EncodeError(s.name + " has the factor 0 and takes no values");
  const double scaled = (phys - s.offset) / s.factor;
  if (!std::isfinite(scaled) ||
      (s.type == ValueType::Float && std::fabs(scaled) > std::numeric_limits<float>::max()))
    throw EncodeError(what + " does not fit in " + s.name);
  if (s.type == ValueType::Float) {
    const auto f = static_cast<float>(scaled);
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
  }
  if (s.type == ValueType::Double) {
    uint64_t bits;
    std::memcpy(&bits, &scaled, sizeof bits);
    return bits;
  }
  const double r = std::round(scaled);
  const double low = s.isSigned ? -std::ldexp(1.0, static_cast<int>(s.length) - 1) : 0.0;
  const double high = std::ldexp(1.0, static_cast<int>(s.length) - (s.isSigned ? 1 : 0));
  if (!(r >= low && r < high))
    throw EncodeError(what + " does not fit in the " + std::to_string(s.length) + " bits of " +
                      s.name);
  if (s.isSigned)
    return static_cast<uint64_t>(static_cast<int64_t>(r)) & s.layout.mask;
  return static_cast<uint64_t>(r);
}

unsigned fdLengthFor(unsigned length) {
  for (unsigned fd : {8u, 12u, 16u, 20u, 24u, 32u, 48u, 64u})
    if (length <= fd)
      return fd;
  return 64;
}

} // namespace

const std::string *Signal::nameOf(int64_t raw) const {
  auto it = std::lower_bound(valueNames.begin(), valueNames.end(), raw,
                             [](const ValueName &v, int64_t r) { return v.raw < r; });
  return it != valueNames.end() && it->raw == raw ? &it->name : nullptr;
}

const Signal *Message::findSignal(std::string_view wanted) const {
  for (const Signal &s : signals)
    if (s.name == wanted)
      return &s;
  return nullptr;
}

bool prepareLayout(Signal &s, unsigned messageLength) {
  if (s.length == 0 || s.length > 64)
    return false;
  BitLayout &l = s.layout;
  l.mask = s.length == 64 ? ~uint64_t{0} : (uint64_t{1} << s.length) - 1;
  unsigned first, last;
  if (s.order == ByteOrder::Intel) {
    first = s.startBit;
    last = s.startBit + s.length - 1;
    l.shift = static_cast<uint8_t>(first % 8);
    l.ninthByte = first % 8 + s.length > 64;
  } else {
    first = motorolaMsbPosition(s.startBit);
    last = first + s.length - 1;
    const unsigned reach = first % 8 + s.length; // bits from the first byte's top
    l.ninthByte = reach > 64;
    l.shift = static_cast<uint8_t>(l.ninthByte ? reach - 64 : 64 - reach);
  }
  if (last >= messageLength * 8)
    return false;
  l.firstByte = static_cast<uint8_t>(first / 8);
  l.endByte = static_cast<uint8_t>(last / 8 + 1);
  return true;
}

DecodedSignal decodeSignal(const Signal &s, const uint8_t *padded) {
  const uint64_t bits = extractRaw(s, padded);
  DecodedSignal d{&s, 0, static_cast<int64_t>(bits), nullptr};
  double scaled;
  if (s.type == ValueType::Float) {
    float f;
    const auto narrow = static_cast<uint32_t>(bits);
    std::memcpy(&f, &narrow, sizeof f);
    scaled = f;
  } else if (s.type == ValueType::Double) {
    std::memcpy(&scaled, &bits, sizeof scaled);
  } else if (s.isSigned) {
    if (s.length < 64 && (bits >> (s.length - 1)) & 1)
      d.raw = static_cast<int64_t>(bits | ~s.layout.mask);
    scaled = static_cast<double>(d.raw);
  } else {
    scaled = static_cast<double>(bits);
  }
  d.value = scaled * s.factor + s.offset;
  if (!s.valueNames.empty())
    d.valueName = s.nameOf(d.raw);
  return d;
}

void Database::index() {
  byKey_.clear();
  for (size_t i = 0; i < messages_.size(); ++i) {
    Message &m = messages_[i];
    if (m.id <= kMaxFrameId)
      byKey_.emplace(keyOf(m.id, m.extended), i);
    m.multiplexerIndex = -1;
    for (size_t k = 0; k < m.signals.size(); ++k) {
      Signal &s = m.signals[k];
      if (s.multiplexer && m.multiplexerIndex < 0)
        m.multiplexerIndex = static_cast<int>(k);
      std::stable_sort(s.valueNames.begin(), s.valueNames.end(),
                       [](const ValueName &a, const ValueName &b) { return a.raw < b.raw; });
    }
  }
}

const Message *Database::findMessage(uint32_t id, bool extended) const {
  auto it = byKey_.find(keyOf(id, extended));
  return it == byKey_.end() ? nullptr : &messages_[it->second];
}

const Message *Database::findMessage(std::string_view name) const {
  for (const Message &m : messages_)
    if (m.name == name)
      return &m;
  return nullptr;
}

const Message *Database::decode(uint32_t id, bool extended, const uint8_t *data, size_t length,
                                std::vector<DecodedSignal> &out) const {
  out.clear();
  const Message *m = findMessage(id, extended);
  if (!m)
    return nullptr;
  uint8_t padded[kPaddedSize] = {};
  length = std::min(length, kMaxData);
  std::memcpy(padded, data, length);
  std::optional<int64_t> active;
  if (m->multiplexerIndex >= 0) {
    const Signal &mux = m->signals[static_cast<size_t>(m->multiplexerIndex)];
    if (mux.layout.endByte <= length)
      active = decodeSignal(mux, padded).raw;
  }
  for (const Signal &s : m->signals) {
    if (s.layout.endByte > length || (s.multiplexValue && s.multiplexValue != active))
      continue;
    out.push_back(decodeSignal(s, padded));
  }
  return m;
}

double parseSignalValue(const Signal &s, std::string_view text) {
  double v = 0;
  const char *begin = text.data() + (!text.empty() && text[0] == '+' ? 1 : 0);
  auto [end, ec] = std::from_chars(begin, text.data() + text.size(), v);
  if (!text.empty() && ec == std::errc() && end == text.data() + text.size())
    return v;
  for (const ValueName &n : s.valueNames)
    if (n.name == text)
      return static_cast<double>(n.raw) * s.factor + s.offset;
  throw EncodeError("'" + std::string(text) + "' is neither a number nor a value name of " +
                    s.name);
}

EncodedFrame encode(const Message &m, const std::vector<std::pair<std::string, double>> &values) {
  if (m.id > kMaxFrameId)
    throw EncodeError("message " + m.name + " is no frame");
  std::vector<std::pair<const Signal *, double>> given;
  std::optional<int64_t> active;
  for (const auto &[name, phys] : values) {
    const Signal *s = m.findSignal(name);
    if (!s)
      throw EncodeError("message " + m.name + " has no signal " + name);
    given.emplace_back(s, phys);
    if (s->multiplexer)
      active = static_cast<int64_t>(rawFor(*s, phys));
  }
  EncodedFrame f;
  for (const auto &[s, phys] : given) {
    if (s->multiplexValue && m.multiplexerIndex < 0)
      throw EncodeError(s->name + " is multiplexed, but message " + m.name + " has no multiplexer");
    if (s->multiplexValue && !active)
      throw EncodeError(s->name + " is multiplexed: give the multiplexer " +
                        m.signals[static_cast<size_t>(m.multiplexerIndex)].name + " too");
    if (s->multiplexValue && s->multiplexValue != active)
      throw EncodeError(s->name + " is sent with multiplexer value " +
                        std::to_string(*s->multiplexValue) + ", not " + std::to_string(*active));
    insertRaw(*s, rawFor(*s, phys), f.data.data());
  }
  f.id = m.id;
  f.extended = m.extended;
  f.fd = m.fd;
  f.brs = m.brs;
  f.length = static_cast<uint8_t>(m.fd ? fdLengthFor(m.length) : m.length);
  return f;
}

std::string formatDecoded(const Message &m, const std::vector<DecodedSignal> &signals) {
  std::string line = m.name + ":";
  for (const DecodedSignal &d : signals) {
    line += " " + d.signal->name + "=" + formatNumber(d.value);
    if (!d.signal->unit.empty())
      line += " " + d.signal->unit;
    if (d.valueName)
      line += " \"" + *d.valueName + "\"";
  }
  return line;
}

} // namespace wcantool::dbc
