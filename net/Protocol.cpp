// SPDX-License-Identifier: MIT
#include "net/Protocol.h"

#include <algorithm>
#include <cstring>

namespace wcantool::net {
namespace {

constexpr char kHex[] = "0123456789ABCDEF";

constexpr bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Printable ASCII and the blanks; anything else is not protocol text.
constexpr bool isText(char c) { return (c >= 0x20 && c <= 0x7E) || isBlank(c); }

// What the readers look up per character: a client with several busy buses
// reads a few megabytes of elements a second.
enum class CharClass : uint8_t { Text, Bracket, NotText };
struct CharTables {
  CharClass kind[256];
  int8_t hex[256]; // -1: no hex digit
};

constexpr CharTables makeCharTables() {
  CharTables t{};
  for (int i = 0; i < 256; ++i) {
    const char c = static_cast<char>(i);
    t.kind[i] = c == '<' || c == '>' ? CharClass::Bracket
                : isText(c)          ? CharClass::Text
                                     : CharClass::NotText;
    t.hex[i] = static_cast<int8_t>(i >= '0' && i <= '9'   ? i - '0'
                                   : i >= 'a' && i <= 'f' ? i - 'a' + 10
                                   : i >= 'A' && i <= 'F' ? i - 'A' + 10
                                                          : -1);
  }
  return t;
}
constexpr CharTables kChars = makeCharTables();

CharClass classOf(char c) { return kChars.kind[static_cast<unsigned char>(c)]; }

// Whether any of 8 bytes needs a closer look: a bracket, or one outside
// the printable range (the blanks other than space among them).
bool plainText8(const char *p) {
  constexpr uint64_t kOnes = 0x0101010101010101ull;
  constexpr uint64_t kHigh = 0x8080808080808080ull;
  uint64_t w;
  std::memcpy(&w, p, sizeof w);
  auto hasZero = [](uint64_t v) { return ((v - kOnes) & ~v & kHigh) != 0; };
  const bool low = ((w - kOnes * 0x20) & ~w & kHigh) != 0;            // a byte below 0x20
  const bool high = (((w + kOnes * (0x7F - 0x7E)) | w) & kHigh) != 0; // above 0x7E
  return !low && !high && !hasZero(w ^ (kOnes * '<')) && !hasZero(w ^ (kOnes * '>'));
}
int hexDigit(char c) { return kChars.hex[static_cast<unsigned char>(c)]; }

bool parseHex(std::string_view text, size_t maxDigits, uint32_t &out) {
  return parseHexNumber(text, maxDigits, out);
}

bool parseDecimal(std::string_view text, size_t maxDigits, uint64_t &out) {
  if (text.empty() || text.size() > maxDigits)
    return false;
  out = 0;
  for (char c : text) {
    if (c < '0' || c > '9')
      return false;
    out = out * 10 + static_cast<uint64_t>(c - '0');
  }
  return true;
}

void appendHexByte(std::string &out, uint8_t b) {
  out += kHex[b >> 4];
  out += kHex[b & 0xF];
}

// A frame element is put together on the stack and appended in one piece:
// the server writes tens of thousands a second.
class ElementText {
public:
  void put(char c) { text_[size_++] = c; }
  void put(const char *s) {
    while (*s)
      text_[size_++] = *s++;
  }
  void putHexByte(uint8_t b) {
    text_[size_++] = kHex[b >> 4];
    text_[size_++] = kHex[b & 0xF];
  }
  void putId(const Frame &frame) {
    const int digits = frame.extended ? 8 : 3;
    const uint32_t id = frame.id & (frame.extended ? kMaxExtendedId : kMaxStandardId);
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
      text_[size_++] = kHex[(id >> shift) & 0xF];
  }
  // "SECONDS.MICROS", the micros always with 6 digits.
  void putTime(LogTime time) {
    char digits[20];
    int n = 0;
    uint64_t secs = time.seconds;
    do {
      digits[n++] = static_cast<char>('0' + secs % 10);
      secs /= 10;
    } while (secs > 0);
    while (n > 0)
      text_[size_++] = digits[--n];
    text_[size_++] = '.';
    uint32_t us = time.micros % 1000000u;
    for (int i = 5; i >= 0; --i, us /= 10)
      text_[size_ + static_cast<size_t>(i)] = static_cast<char>('0' + us % 10);
    size_ += 6;
  }
  // "< VERB ID TIME " in front of every frame element.
  void putHead(const char *verb, LogTime time, const Frame &frame) {
    put("< ");
    put(verb);
    put(' ');
    putId(frame);
    put(' ');
    putTime(time);
    put(' ');
  }
  void appendTo(std::string &out) const { out.append(text_, size_); }

private:
  // The longest: "< fdframe " ID(8) " " TIME(20 + 1 + 6) " " DATA(128) " 1 >".
  char text_[192];
  size_t size_ = 0;
};

void appendId(std::string &out, const Frame &frame) {
  ElementText e;
  e.putId(frame);
  e.appendTo(out);
}

// Cuts the words off an element one at a time, without a copy.
class WordCursor {
public:
  explicit WordCursor(std::string_view text) : rest_(text) {}

  bool next(std::string_view &word) {
    skipBlanks();
    size_t end = 0;
    while (end < rest_.size() && !isBlank(rest_[end]))
      ++end;
    word = rest_.substr(0, end);
    rest_.remove_prefix(end);
    return end > 0;
  }
  bool atEnd() {
    skipBlanks();
    return rest_.empty();
  }

private:
  void skipBlanks() {
    while (!rest_.empty() && isBlank(rest_.front()))
      rest_.remove_prefix(1);
  }
  std::string_view rest_;
};

// "SECONDS.MICROSECONDS"
bool parseStamp(std::string_view stamp, LogTime &time) {
  const size_t dot = stamp.find('.');
  uint64_t secs = 0, micros = 0;
  if (dot == std::string_view::npos || !parseDecimal(stamp.substr(0, dot), 20, secs) ||
      !parseDecimal(stamp.substr(dot + 1), 6, micros))
    return false;
  time = {secs, static_cast<uint32_t>(micros)};
  return true;
}

// Pairs of hex digits appended to the frame's data.
bool appendDataWord(std::string_view word, Frame &out, unsigned maxLen) {
  if (word.size() % 2 != 0 || out.len + word.size() / 2 > maxLen)
    return false;
  for (size_t p = 0; p < word.size(); p += 2) {
    const int high = hexDigit(word[p]);
    const int low = hexDigit(word[p + 1]);
    if (high < 0 || low < 0)
      return false;
    out.data[out.len++] = static_cast<uint8_t>(high << 4 | low);
  }
  return true;
}

// The data of a frame element: one run of hex digits (raw) or one word per
// byte (bcm); a raw CAN FD frame may end with its flag digit.
bool parseFrameData(WordCursor &words, Frame &out) {
  const unsigned maxLen = out.fd ? kMaxFdLen : kMaxClassicLen;
  std::string_view first, second;
  if (!words.next(first))
    return true;
  if (!words.next(second))
    return appendDataWord(first, out, maxLen) && (!out.fd || isFdLength(out.len));
  if (out.fd && second.size() == 1 && words.atEnd()) {
    const int flags = hexDigit(second[0]);
    if (flags < 0 || !appendDataWord(first, out, maxLen))
      return false;
    out.brs = (static_cast<unsigned>(flags) & kTextFlagBrs) != 0;
    return isFdLength(out.len);
  }
  if (!appendDataWord(first, out, maxLen))
    return false;
  for (std::string_view word = second; !word.empty(); words.next(word))
    if (!appendDataWord(word, out, maxLen))
      return false;
  return !out.fd || isFdLength(out.len);
}

// Requests with data bytes: the length decides how many words must follow.
constexpr size_t kAnyWords = kMaxElement;

struct Words {
  std::vector<std::string_view> words;
  std::string &error;

  size_t size() const { return words.size(); }
  std::string_view operator[](size_t i) const { return words[i]; }

  bool fail(std::string why) {
    error = std::move(why);
    return false;
  }
  bool expectCount(size_t min, size_t max, const char *usage) {
    if (words.size() < min || words.size() > max)
      return fail(std::string("usage: ") + usage);
    return true;
  }
};

bool parseId(Words &w, size_t at, Frame &frame) {
  if (!parseFrameId(w[at], frame))
    return w.fail("bad CAN id '" + std::string(w[at]) +
                  "': hex, at most 7FF, or 8 digits up to 1FFFFFFF");
  return true;
}

// Length and data bytes from word `at` on: exactly `len` bytes of 1 or 2 hex
// digits; with `flagAllowed` one more word may follow, the CAN FD flag digit.
bool parseData(Words &w, size_t at, Frame &frame, bool fd, bool flagAllowed) {
  uint64_t len = 0;
  if (!parseDecimal(w[at], 2, len) || (fd ? !isFdLength(static_cast<unsigned>(len)) : len > 8))
    return w.fail("bad length '" + std::string(w[at]) +
                  (fd ? "': 0..8, 12, 16, 20, 24, 32, 48 or 64" : "': 0..8"));
  const size_t first = at + 1;
  const size_t given = w.size() - first;
  const bool withFlag = flagAllowed && given == len + 1;
  if (given != len && !withFlag)
    return w.fail("length " + std::to_string(len) + " but " + std::to_string(given) +
                  " data bytes");
  frame.len = static_cast<uint8_t>(len);
  for (size_t i = 0; i < len; ++i) {
    uint32_t b = 0;
    if (!parseHex(w[first + i], 2, b))
      return w.fail("bad data byte '" + std::string(w[first + i]) + "': 1 or 2 hex digits");
    frame.data[i] = static_cast<uint8_t>(b);
  }
  if (withFlag) {
    uint32_t flags = 0;
    if (!parseHex(w[first + len], 1, flags))
      return w.fail("bad flag digit '" + std::string(w[first + len]) + "'");
    frame.brs = (flags & kTextFlagBrs) != 0;
  }
  return true;
}

// "SECS USECS" at word `at`.
bool parseInterval(Words &w, size_t at, uint64_t &us) {
  uint64_t secs = 0, micros = 0;
  if (!parseDecimal(w[at], 9, secs) || !parseDecimal(w[at + 1], 9, micros))
    return w.fail("bad interval '" + std::string(w[at]) + " " + std::string(w[at + 1]) +
                  "': seconds and microseconds in decimal");
  us = secs * 1000000u + micros;
  return true;
}

bool parseSend(Words &w, Request &out, std::string_view verb) {
  out.verb = Verb::Send;
  Frame &f = out.frame;
  if (verb == "sendrtr") {
    uint64_t len = 0;
    if (!w.expectCount(3, 3, "< sendrtr ID DLC >") || !parseId(w, 1, f))
      return false;
    if (!parseDecimal(w[2], 1, len) || len > 8)
      return w.fail("bad length '" + std::string(w[2]) + "': 0..8");
    f.remote = true;
    f.len = static_cast<uint8_t>(len);
    return true;
  }
  const bool fd = verb == "sendfd";
  f.fd = fd;
  return w.expectCount(3, kAnyWords,
                       fd ? "< sendfd ID LEN BYTE... [FLAG] >" : "< send ID DLC BYTE... >") &&
         parseId(w, 1, f) && parseData(w, 2, f, fd, fd);
}

// The flags byte of "fdsend": 0x01 bit-rate switch, 0x02 error state
// indicator (which the adapter sets by itself; accepted and left to it).
// Values 0..3 read the same in hex and decimal, so either spelling is taken.
bool parseFdFlags(Words &w, size_t at, Frame &frame) {
  std::string_view text = w[at];
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    text.remove_prefix(2);
  uint32_t flags = 0;
  if (!parseHex(text, 2, flags) || flags > (kTextFlagBrs | kTextFlagEsi))
    return w.fail("bad flags '" + std::string(w[at]) +
                  "': 0..3, 0x01 bit-rate switch, 0x02 error state indicator");
  frame.brs = (flags & kTextFlagBrs) != 0;
  return true;
}

// "< fdsend ID FLAGS LEN DATA >": DATA as LEN separate bytes, or as one word
// of 2 * LEN hex digits (for LEN 1 the two forms are the same).
bool parseFdSend(Words &w, Request &out) {
  out.verb = Verb::Send;
  Frame &f = out.frame;
  f.fd = true;
  if (!w.expectCount(4, kAnyWords, "< fdsend ID FLAGS LEN DATA >") || !parseId(w, 1, f) ||
      !parseFdFlags(w, 2, f))
    return false;
  uint64_t len = 0;
  const bool contiguous = w.size() == 5 && parseDecimal(w[3], 2, len) && len > 1 &&
                          isFdLength(static_cast<unsigned>(len)) && w[4].size() == 2 * len;
  if (!contiguous)
    return parseData(w, 3, f, true, false);
  f.len = static_cast<uint8_t>(len);
  for (size_t i = 0; i < len; ++i) {
    uint32_t b = 0;
    if (!parseHex(w[4].substr(2 * i, 2), 2, b))
      return w.fail("bad data '" + std::string(w[4]) + "': hex digits");
    f.data[i] = static_cast<uint8_t>(b);
  }
  return true;
}

bool parseCyclic(Words &w, Request &out, Verb verb) {
  out.verb = verb;
  if (verb == Verb::Add) {
    if (!w.expectCount(5, kAnyWords, "< add SECS USECS ID DLC BYTE... >") ||
        !parseInterval(w, 1, out.intervalUs) || !parseId(w, 3, out.frame) ||
        !parseData(w, 4, out.frame, false, false))
      return false;
    if (out.intervalUs < kMinCycleUs)
      return w.fail("the interval must be at least " + std::to_string(kMinCycleUs) + " us");
    return true;
  }
  if (verb == Verb::Update)
    return w.expectCount(3, kAnyWords, "< update ID DLC BYTE... >") && parseId(w, 1, out.frame) &&
           parseData(w, 2, out.frame, false, false);
  return w.expectCount(2, 2, "< delete ID >") && parseId(w, 1, out.frame);
}

bool parseReception(Words &w, Request &out, Verb verb) {
  out.verb = verb;
  if (verb == Verb::Subscribe)
    return w.expectCount(4, 4, "< subscribe SECS USECS ID >") &&
           parseInterval(w, 1, out.intervalUs) && parseId(w, 3, out.frame);
  if (verb == Verb::Filter)
    return w.expectCount(5, kAnyWords, "< filter SECS USECS ID DLC MASK... >") &&
           parseInterval(w, 1, out.intervalUs) && parseId(w, 3, out.frame) &&
           parseData(w, 4, out.frame, false, false);
  return w.expectCount(2, 2, "< unsubscribe ID >") && parseId(w, 1, out.frame);
}

struct Simple {
  const char *name;
  Verb verb;
};
constexpr Simple kSimpleVerbs[] = {
    {"echo", Verb::Echo},           {"rawmode", Verb::RawMode},
    {"bcmmode", Verb::BcmMode},     {"controlmode", Verb::ControlMode},
    {"isotpmode", Verb::IsoTpMode}, {"buses", Verb::Buses},
};

} // namespace

void ElementReader::feed(const char *data, size_t size) {
  if (broken_)
    return;
  compact();
  buffer_.append(data, size);
}

bool ElementReader::fail(Kind &kind, std::string_view &text, std::string why) {
  broken_ = true;
  buffer_.clear();
  start_ = scanned_ = 0;
  why_ = std::move(why);
  kind = Kind::Broken;
  text = why_;
  return true;
}

// Only where no view handed out can point: before new bytes or the next item.
void ElementReader::compact() {
  if (start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  } else if (start_ > 4096 && start_ > buffer_.size() / 2) {
    buffer_.erase(0, start_);
    start_ = 0;
  }
}

bool ElementReader::next(Item &item) {
  std::string_view text;
  if (!nextView(item.kind, text))
    return false;
  item.text.assign(text.data(), text.size());
  return true;
}

bool ElementReader::nextView(Kind &kind, std::string_view &text) {
  if (broken_)
    return false;
  compact();
  while (start_ < buffer_.size() && isBlank(buffer_[start_]))
    ++start_;
  if (start_ == buffer_.size()) {
    compact();
    scanned_ = 0;
    return false;
  }
  const std::string_view all = buffer_;
  const size_t end = all.size();
  if (all[start_] != '<') {
    size_t p = start_;
    while (p < end && all[p] != '<' && !isBlank(all[p])) {
      if (!isText(all[p]))
        return fail(kind, text, "bytes that are not protocol text");
      ++p;
    }
    kind = Kind::Stray;
    text = all.substr(start_, p - start_);
    start_ = p;
    scanned_ = 0;
    return true;
  }
  size_t p = start_ + 1 + scanned_;
  // Eight at a time through the plain text, never past the longest element.
  const size_t plainEnd = std::min(end, start_ + kMaxElement);
  while (p + 8 <= plainEnd && plainText8(all.data() + p))
    p += 8;
  for (; p < end; ++p) {
    const char c = all[p];
    const CharClass k = classOf(c);
    if (k == CharClass::NotText)
      return fail(kind, text, "bytes that are not protocol text");
    if (k == CharClass::Bracket) {
      const size_t from = start_ + 1;
      kind = c == '>' ? Kind::Element : Kind::Stray;
      text = all.substr(from, p - from);
      start_ = c == '>' ? p + 1 : p;
      scanned_ = 0;
      return true;
    }
    if (p - start_ >= kMaxElement)
      return fail(kind, text,
                  "an element without an end within " + std::to_string(kMaxElement) + " bytes");
  }
  scanned_ = end - start_ - 1;
  return false;
}

std::vector<std::string_view> splitWords(std::string_view element) {
  std::vector<std::string_view> words;
  words.reserve(12); // a classic frame's words: one allocation per element
  size_t p = 0;
  while (p < element.size()) {
    while (p < element.size() && isBlank(element[p]))
      ++p;
    size_t q = p;
    while (q < element.size() && !isBlank(element[q]))
      ++q;
    if (q > p)
      words.push_back(element.substr(p, q - p));
    p = q;
  }
  return words;
}

bool parseFrameId(std::string_view text, Frame &out) {
  uint32_t id = 0;
  if (!parseHex(text, 8, id) || id > kMaxExtendedId)
    return false;
  out.id = id;
  out.extended = text.size() == 8 || id > kMaxStandardId;
  return true;
}

bool parseRequest(std::string_view element, Request &out, std::string &error) {
  out = Request{};
  Words w{splitWords(element), error};
  if (w.size() == 0)
    return w.fail("unknown command");
  const std::string_view verb = w[0];
  for (const Simple &s : kSimpleVerbs) {
    if (verb == s.name) {
      out.verb = s.verb;
      return w.expectCount(1, 1, (std::string("< ") + s.name + " >").c_str());
    }
  }
  if (verb == "open") {
    out.verb = Verb::Open;
    if (!w.expectCount(2, 2, "< open BUS >"))
      return false;
    out.bus = std::string(w[1]);
    return true;
  }
  if (verb == "send" || verb == "sendrtr" || verb == "sendfd")
    return parseSend(w, out, verb);
  if (verb == "fdsend")
    return parseFdSend(w, out);
  if (verb == "add")
    return parseCyclic(w, out, Verb::Add);
  if (verb == "update")
    return parseCyclic(w, out, Verb::Update);
  if (verb == "delete")
    return parseCyclic(w, out, Verb::Delete);
  if (verb == "subscribe")
    return parseReception(w, out, Verb::Subscribe);
  if (verb == "filter")
    return parseReception(w, out, Verb::Filter);
  if (verb == "unsubscribe")
    return parseReception(w, out, Verb::Unsubscribe);
  if (verb == "statistics") {
    out.verb = Verb::Statistics;
    uint64_t ms = 0;
    if (!w.expectCount(2, 2, "< statistics MILLISECONDS >"))
      return false;
    if (!parseDecimal(w[1], 9, ms))
      return w.fail("bad interval '" + std::string(w[1]) + "': milliseconds in decimal");
    out.intervalUs = ms * 1000;
    return true;
  }
  return w.fail("unknown command");
}

void appendRawFrame(std::string &out, LogTime time, const Frame &frame) {
  ElementText e;
  if (frame.remote) {
    e.putHead("rtr", time, frame);
    e.put(static_cast<char>('0' + std::min<unsigned>(frame.len, kMaxClassicLen)));
  } else {
    e.putHead(frame.fd ? "fdframe" : "frame", time, frame);
    const unsigned len = std::min<unsigned>(frame.len, frame.fd ? kMaxFdLen : kMaxClassicLen);
    for (unsigned i = 0; i < len; ++i)
      e.putHexByte(frame.data[i]);
    if (frame.fd && frame.brs) {
      e.put(' ');
      e.put(kHex[kTextFlagBrs]);
    }
  }
  e.put(" >");
  e.appendTo(out);
}

void appendBcmFrame(std::string &out, LogTime time, const Frame &frame) {
  ElementText e;
  e.putHead("frame", time, frame);
  const unsigned len = std::min<unsigned>(frame.len, kMaxClassicLen);
  for (unsigned i = 0; i < len; ++i) {
    e.putHexByte(frame.data[i]);
    e.put(' ');
  }
  e.put('>');
  e.appendTo(out);
}

bool parseFrameElement(std::string_view text, Frame &out, LogTime &time) {
  WordCursor words(text);
  std::string_view verb, id, stamp;
  if (!words.next(verb) || !words.next(id) || !words.next(stamp))
    return false;
  out = Frame{};
  if (verb != "frame" && verb != "fdframe" && verb != "rtr")
    return false;
  if (!parseFrameId(id, out) || !parseStamp(stamp, time))
    return false;
  if (verb == "rtr") {
    std::string_view lenWord;
    uint64_t len = 0;
    if (!words.next(lenWord) || !words.atEnd() || !parseDecimal(lenWord, 1, len) ||
        len > kMaxClassicLen)
      return false;
    out.remote = true;
    out.len = static_cast<uint8_t>(len);
    return true;
  }
  out.fd = verb == "fdframe";
  return parseFrameData(words, out);
}

std::string sendRequest(const Frame &frame) {
  std::string s = "< ";
  s += frame.remote ? "sendrtr " : frame.fd ? "sendfd " : "send ";
  appendId(s, frame);
  s += ' ';
  s += std::to_string(frame.len);
  if (!frame.remote) {
    const unsigned len = std::min<unsigned>(frame.len, frame.fd ? kMaxFdLen : kMaxClassicLen);
    for (unsigned i = 0; i < len; ++i) {
      s += ' ';
      appendHexByte(s, frame.data[i]);
    }
    if (frame.fd && frame.brs) {
      s += ' ';
      s += kHex[kTextFlagBrs];
    }
  }
  s += " >";
  return s;
}

std::string element(std::string_view text) {
  std::string s = "< ";
  s.append(text);
  s += " >";
  return s;
}

std::string errorElement(std::string_view reason) {
  // A reason never carries the element brackets of the text it quotes.
  std::string clean(reason);
  std::replace_if(
      clean.begin(), clean.end(), [](char c) { return c == '<' || c == '>' || !isText(c); }, '?');
  return element("error " + clean);
}

} // namespace wcantool::net
