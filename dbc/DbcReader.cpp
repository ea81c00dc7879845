// SPDX-License-Identifier: MIT
// Reading DBC text: a cursor over the characters that knows lines and
// columns for its complaints, and one function per statement keyword.
// Statements this reader has no use for are skipped; ones it does not know
// are skipped with a warning, so that vendor extensions never stop a file.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <set>
#include <sstream>

#include "dbc/Dbc.h"

namespace wcantool::dbc {

ParseError::ParseError(unsigned line, unsigned column, const std::string &what)
    : std::runtime_error("line " + std::to_string(line) + ", column " + std::to_string(column) +
                         ": " + what),
      line_(line), column_(column) {}

namespace {

constexpr uint32_t kExtendedFlag = 0x80000000u;
// Bits 29 and 30 mark ids that are no frame, such as the holder of signals
// that belong to no message.
constexpr uint32_t kPseudoIdBits = 0x60000000u;
constexpr size_t kMaxSignalsPerMessage = 4096;
constexpr size_t kMaxWarnings = 100;

bool isWordChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

bool isNumberChar(char c) { return isWordChar(c) || c == '.' || c == '+' || c == '-'; }

class Cursor {
public:
  explicit Cursor(std::string_view text) : text_(text) {
    // Editors on some systems start UTF-8 files with a byte order mark.
    if (text_.substr(0, 3) == "\xEF\xBB\xBF")
      pos_ = 3;
    lineStarts_.push_back(0);
    for (size_t i = 0; i < text.size(); ++i)
      if (text[i] == '\n')
        lineStarts_.push_back(i + 1);
  }

  // Within a line-based statement (BO_, SG_) blanks do not include line ends,
  // so that a missing field is reported where the line stops.
  void setLineMode(bool on) { lineMode_ = on; }

  bool atEnd() const { return pos_ >= text_.size(); }
  size_t pos() const { return pos_; }
  char peekRaw() const { return atEnd() ? '\0' : text_[pos_]; }

  char peek() {
    skipBlanks();
    return peekRaw();
  }

  void skipBlanks() {
    while (!atEnd()) {
      char c = text_[pos_];
      if (c == ' ' || c == '\t' || c == '\r' || (c == '\n' && !lineMode_))
        ++pos_;
      else
        break;
    }
  }

  unsigned lineOf(size_t at) const {
    auto it = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), at);
    return static_cast<unsigned>(it - lineStarts_.begin());
  }

  [[noreturn]] void failAt(size_t at, const std::string &what) const {
    unsigned line = lineOf(at);
    throw ParseError(line, static_cast<unsigned>(at - lineStarts_[line - 1] + 1), what);
  }

  [[noreturn]] void fail(const std::string &what) {
    skipBlanks();
    failAt(pos_, what);
  }

  bool take(char c) {
    if (peek() != c)
      return false;
    ++pos_;
    return true;
  }

  void expect(char c, const char *context) {
    if (!take(c))
      fail(std::string("expected '") + c + "' " + context);
  }

  // Letters, digits and underscores; empty if none stand here.
  std::string_view word() {
    skipBlanks();
    size_t start = pos_;
    while (!atEnd() && isWordChar(text_[pos_]))
      ++pos_;
    return text_.substr(start, pos_ - start);
  }

  std::string identifier(const char *what) {
    std::string_view w = word();
    if (w.empty() || (w[0] >= '0' && w[0] <= '9'))
      fail(std::string("expected ") + what);
    return std::string(w);
  }

  bool nextIsNumber() {
    char c = peek();
    return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.';
  }

  double number(const char *what) {
    std::string_view run = numberRun();
    if (!run.empty() && run[0] == '+')
      run.remove_prefix(1);
    double value = 0;
    auto [end, ec] = std::from_chars(run.data(), run.data() + run.size(), value);
    if (run.empty() || ec != std::errc() || end != run.data() + run.size() || !std::isfinite(value))
      failAt(pos_ - numberRunLength_, std::string("expected ") + what);
    return value;
  }

  uint64_t unsignedNumber(const char *what, uint64_t max) {
    std::string_view run = numberRun();
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(run.data(), run.data() + run.size(), value);
    if (run.empty() || ec != std::errc() || end != run.data() + run.size() || value > max)
      failAt(pos_ - run.size(), std::string("expected ") + what);
    return value;
  }

  int64_t integer(const char *what) {
    size_t start = (skipBlanks(), pos_);
    double value = number(what);
    if (value != std::floor(value) || std::fabs(value) > 9.2e18)
      failAt(start, std::string("expected ") + what);
    return static_cast<int64_t>(value);
  }

  // A quoted string; \" and \\ stand for themselves. It may span lines.
  std::string quoted(const char *what) {
    if (peek() != '"')
      fail(std::string("expected ") + what);
    size_t start = pos_++;
    std::string out;
    while (!atEnd()) {
      char c = text_[pos_++];
      if (c == '"')
        return out;
      if (c == '\\' && !atEnd() && (text_[pos_] == '"' || text_[pos_] == '\\'))
        c = text_[pos_++];
      out += c;
    }
    failAt(start, "unterminated string");
  }

  void expectLineEnd(const char *context) {
    char c = peek();
    if (c != '\n' && c != '\0')
      fail(std::string("expected the end of the line ") + context);
  }

  void skipLine() {
    while (!atEnd() && text_[pos_] != '\n')
      ++pos_;
  }

  // Skips lines that begin with a blank: the indented list after NS_.
  void skipIndentedLines() {
    skipLine();
    while (!atEnd()) {
      ++pos_; // the line end
      char c = peekRaw();
      if (c != ' ' && c != '\t' && c != '\r' && c != '\n')
        break;
      skipLine();
    }
  }

  // Skips a statement to its ';', or to the next line that begins with a
  // word, whichever comes first; strings may hold either.
  void skipStatement() {
    while (!atEnd()) {
      char c = text_[pos_++];
      if (c == ';')
        return;
      if (c == '"') {
        while (!atEnd() && text_[pos_] != '"')
          pos_ += text_[pos_] == '\\' && pos_ + 1 < text_.size() ? 2 : 1;
        if (!atEnd())
          ++pos_;
      } else if (c == '\n' && !atEnd() && isWordChar(text_[pos_])) {
        return;
      }
    }
  }

private:
  std::string_view numberRun() {
    skipBlanks();
    size_t start = pos_;
    while (!atEnd() && isNumberChar(text_[pos_]))
      ++pos_;
    numberRunLength_ = pos_ - start;
    return text_.substr(start, numberRunLength_);
  }

  std::string_view text_;
  size_t pos_ = 0;
  size_t numberRunLength_ = 0;
  bool lineMode_ = false;
  std::vector<size_t> lineStarts_;
};

// A value given to an attribute: a number, or a string (also enum names).
struct AttributeValue {
  bool isString = false;
  double number = 0;
  std::string text;
};

struct AttributeDef {
  std::vector<std::string> enumNames; // empty unless ENUM
  std::optional<AttributeValue> defaultValue;
};

// Keywords of the format this reader has no use for.
const std::set<std::string_view> &ignoredKeywords() {
  static const std::set<std::string_view> words = {
      "EV_",           "ENVVAR_DATA_",    "EV_DATA_",
      "BO_TX_BU_",     "SIG_GROUP_",      "BA_DEF_REL_",
      "BA_REL_",       "BA_DEF_DEF_REL_", "BA_DEF_SGTYPE_",
      "BA_SGTYPE_",    "SGTYPE_",         "SGTYPE_VAL_",
      "SIG_TYPE_REF_", "SG_MUL_VAL_",     "CAT_DEF_",
      "CAT_",          "FILTER",          "BU_SG_REL_",
      "BU_EV_REL_",    "BU_BO_REL_",      "SIG_VALTYPE_REL_"};
  return words;
}

} // namespace

class Reader {
public:
  Reader(std::string_view text, std::vector<std::string> &warnings)
      : in_(text), warnings_(warnings) {}

  Database read() {
    while (!(in_.skipBlanks(), in_.atEnd()))
      statement();
    applyAttributes();
    db_.index();
    return std::move(db_);
  }

private:
  void warn(size_t at, const std::string &what) {
    if (warnings_.size() < kMaxWarnings)
      warnings_.push_back("line " + std::to_string(in_.lineOf(at)) + ": " + what);
    else if (warnings_.size() == kMaxWarnings)
      warnings_.push_back("more warnings left out");
  }

  void statement() {
    const size_t start = in_.pos();
    const std::string_view keyword = in_.word();
    if (keyword.empty())
      in_.fail("expected a keyword");
    if (keyword != "SG_")
      current_ = nullptr;
    if (keyword == "VERSION")
      in_.quoted("a version string");
    else if (keyword == "NS_")
      in_.expect(':', "after NS_"), in_.skipIndentedLines();
    else if (keyword == "BS_")
      in_.expect(':', "after BS_"), in_.skipLine();
    else if (keyword == "BU_")
      nodes();
    else if (keyword == "BO_")
      message();
    else if (keyword == "SG_")
      signal(start);
    else if (keyword == "CM_")
      comment();
    else if (keyword == "BA_DEF_")
      attributeDefinition();
    else if (keyword == "BA_DEF_DEF_")
      attributeDefault();
    else if (keyword == "BA_")
      attribute();
    else if (keyword == "VAL_")
      valueNames();
    else if (keyword == "VAL_TABLE_")
      valueTable();
    else if (keyword == "SIG_VALTYPE_")
      valueType();
    else if (ignoredKeywords().count(keyword) != 0)
      in_.skipStatement();
    else {
      warn(start, "skipped unknown keyword '" + std::string(keyword) + "'");
      in_.skipStatement();
    }
  }

  void nodes() {
    in_.expect(':', "after BU_");
    in_.setLineMode(true);
    while (in_.peek() != '\n' && in_.peek() != '\0')
      db_.nodes_.push_back(in_.identifier("a node name"));
    in_.setLineMode(false);
  }

  void message() {
    in_.setLineMode(true);
    const size_t idAt = (in_.skipBlanks(), in_.pos());
    const auto rawId = static_cast<uint32_t>(in_.unsignedNumber("a message id", 0xFFFFFFFFu));
    Message m;
    m.name = in_.identifier("a message name");
    in_.expect(':', "after the message name");
    m.length = static_cast<unsigned>(in_.unsignedNumber("a message length of 0..64 bytes", 64));
    m.sender = in_.identifier("the sending node");
    in_.expectLineEnd("after the sending node");
    in_.setLineMode(false);

    m.extended = (rawId & kExtendedFlag) != 0;
    m.id = rawId & ~kExtendedFlag;
    if (!m.extended && m.id > 0x7FF && (rawId & kPseudoIdBits) == 0) {
      warn(idAt, "message " + m.name + ": standard id above 0x7FF, read as extended");
      m.extended = true;
    }
    if (!rawIds_.emplace(rawId, db_.messages_.size()).second)
      in_.failAt(idAt, "message id " + std::to_string(rawId) + " defined twice");
    m.fd = m.length > 8;
    db_.messages_.push_back(std::move(m));
    current_ = &db_.messages_.back();
    currentIsFrame_ = (rawId & kPseudoIdBits) == 0;
  }

  // "M", "m<k>" or "m<k>M" after the signal name.
  void multiplexIndicator(Signal &s, size_t signalAt) {
    const size_t at = (in_.skipBlanks(), in_.pos());
    std::string_view w = in_.word();
    if (w == "M") {
      s.multiplexer = true;
      return;
    }
    bool valid = w.size() >= 2 && w[0] == 'm';
    size_t digits = 1;
    while (valid && digits < w.size() && w[digits] >= '0' && w[digits] <= '9')
      ++digits;
    valid =
        valid && digits > 1 && (digits == w.size() || (digits + 1 == w.size() && w.back() == 'M'));
    int64_t value = 0;
    if (valid) {
      auto [end, ec] = std::from_chars(w.data() + 1, w.data() + digits, value);
      valid = ec == std::errc() && end == w.data() + digits;
    }
    if (!valid)
      in_.failAt(at, "expected ':' or a multiplexer indicator after the signal name");
    s.multiplexValue = value;
    if (digits < w.size())
      warn(signalAt, "signal " + s.name + ": nested multiplexing is read as plain multiplexing");
  }

  void signal(size_t start) {
    if (!current_)
      in_.failAt(start, "SG_ outside a message");
    in_.setLineMode(true);
    Signal s;
    s.name = in_.identifier("a signal name");
    if (in_.peek() != ':')
      multiplexIndicator(s, start);
    in_.expect(':', "after the signal name");
    const size_t bitAt = (in_.skipBlanks(), in_.pos());
    s.startBit = static_cast<unsigned>(in_.unsignedNumber("a start bit", 511));
    in_.expect('|', "after the start bit");
    const size_t lengthAt = (in_.skipBlanks(), in_.pos());
    s.length = static_cast<unsigned>(in_.unsignedNumber("a signal length", 64));
    if (s.length == 0)
      in_.failAt(lengthAt, "a signal length must be 1..64");
    in_.expect('@', "after the signal length");
    if (in_.take('0'))
      s.order = ByteOrder::Motorola;
    else if (!in_.take('1'))
      in_.fail("expected byte order 0 or 1 after '@'");
    if (in_.peekRaw() == '-')
      s.isSigned = true;
    else if (in_.peekRaw() != '+')
      in_.fail("expected '+' or '-' after the byte order");
    in_.take(in_.peekRaw());
    in_.expect('(', "before the factor");
    s.factor = in_.number("a factor");
    in_.expect(',', "after the factor");
    s.offset = in_.number("an offset");
    in_.expect(')', "after the offset");
    in_.expect('[', "before the minimum");
    s.minimum = in_.number("a minimum");
    in_.expect('|', "after the minimum");
    s.maximum = in_.number("a maximum");
    in_.expect(']', "after the maximum");
    s.unit = in_.quoted("a unit string");
    in_.skipLine(); // the receiving nodes
    in_.setLineMode(false);

    // The holder of signals without a message has no length to keep to.
    if (!prepareLayout(s, currentIsFrame_ ? current_->length : 64))
      in_.failAt(bitAt, "signal " + s.name + " does not fit in the " +
                            std::to_string(current_->length) + " bytes of message " +
                            current_->name);
    if (current_->findSignal(s.name))
      in_.failAt(start, "signal " + s.name + " defined twice in message " + current_->name);
    if (current_->signals.size() >= kMaxSignalsPerMessage)
      in_.failAt(start, "too many signals in message " + current_->name);
    current_->signals.push_back(std::move(s));
  }

  Message *messageById(size_t at, uint32_t rawId, const char *keyword) {
    auto it = rawIds_.find(rawId);
    if (it != rawIds_.end())
      return &db_.messages_[it->second];
    warn(at, std::string(keyword) + " for unknown message id " + std::to_string(rawId));
    return nullptr;
  }

  // The message id and signal name a statement refers to; nullptr with a
  // warning if there is no such signal.
  Signal *signalRef(const char *keyword) {
    const size_t at = (in_.skipBlanks(), in_.pos());
    const auto rawId = static_cast<uint32_t>(in_.unsignedNumber("a message id", 0xFFFFFFFFu));
    const std::string name = in_.identifier("a signal name");
    Message *m = messageById(at, rawId, keyword);
    if (!m)
      return nullptr;
    for (Signal &s : m->signals)
      if (s.name == name)
        return &s;
    warn(at, std::string(keyword) + " for unknown signal " + name + " of message " + m->name);
    return nullptr;
  }

  void comment() {
    const size_t at = (in_.skipBlanks(), in_.pos());
    const std::string_view object = in_.word();
    if (object.empty()) {
      db_.comment_ = in_.quoted("a comment string");
    } else if (object == "BU_") {
      std::string node = in_.identifier("a node name");
      db_.nodeComments_[node] = in_.quoted("a comment string");
    } else if (object == "BO_") {
      const auto rawId = static_cast<uint32_t>(in_.unsignedNumber("a message id", 0xFFFFFFFFu));
      std::string text = in_.quoted("a comment string");
      if (Message *m = messageById(at, rawId, "CM_"))
        m->comment = std::move(text);
    } else if (object == "SG_") {
      Signal *s = signalRef("CM_");
      std::string text = in_.quoted("a comment string");
      if (s)
        s->comment = std::move(text);
    } else if (object == "EV_") {
      in_.identifier("an environment variable name");
      in_.quoted("a comment string");
    } else {
      in_.failAt(at, "expected a comment string or BU_, BO_, SG_ or EV_ after CM_");
    }
    in_.expect(';', "after the comment");
  }

  AttributeValue attributeValue() {
    AttributeValue v;
    if (in_.peek() == '"') {
      v.isString = true;
      v.text = in_.quoted("an attribute value");
    } else {
      v.number = in_.number("an attribute value");
    }
    return v;
  }

  void attributeDefinition() {
    const std::string_view object = in_.word();
    if (!object.empty() && object != "BU_" && object != "BO_" && object != "SG_" && object != "EV_")
      in_.fail("expected an attribute name string or BU_, BO_, SG_ or EV_ after BA_DEF_");
    const std::string name = in_.quoted("an attribute name string");
    AttributeDef def;
    const size_t typeAt = (in_.skipBlanks(), in_.pos());
    const std::string_view type = in_.word();
    if (type == "INT" || type == "HEX" || type == "FLOAT") {
      in_.number("a minimum");
      in_.number("a maximum");
    } else if (type == "ENUM") {
      do
        def.enumNames.push_back(in_.quoted("an enum name string"));
      while (in_.take(','));
    } else if (type != "STRING") {
      in_.failAt(typeAt, "expected INT, HEX, FLOAT, STRING or ENUM");
    }
    in_.expect(';', "after the attribute definition");
    auto &slot = attributeDefs_[name];
    def.defaultValue = std::move(slot.defaultValue);
    slot = std::move(def);
  }

  void attributeDefault() {
    const std::string name = in_.quoted("an attribute name string");
    AttributeValue value = attributeValue();
    in_.expect(';', "after the default value");
    attributeDefs_[name].defaultValue = std::move(value);
  }

  void attribute() {
    const std::string name = in_.quoted("an attribute name string");
    const size_t at = (in_.skipBlanks(), in_.pos());
    const std::string_view object = in_.word();
    Message *target = nullptr;
    if (object == "BO_") {
      const auto rawId = static_cast<uint32_t>(in_.unsignedNumber("a message id", 0xFFFFFFFFu));
      target = messageById(at, rawId, "BA_");
    } else if (object == "SG_") {
      signalRef("BA_");
    } else if (object == "BU_" || object == "EV_") {
      in_.identifier("a name");
    } else if (!object.empty()) {
      in_.failAt(at, "expected an attribute value or BU_, BO_, SG_ or EV_");
    }
    AttributeValue value = attributeValue();
    in_.expect(';', "after the attribute value");
    if (target)
      messageAttributes_[target - db_.messages_.data()][name] = std::move(value);
  }

  std::vector<ValueName> valueNameList() {
    std::vector<ValueName> names;
    while (in_.nextIsNumber()) {
      ValueName v;
      v.raw = in_.integer("an integer value");
      v.name = in_.quoted("a value name string");
      names.push_back(std::move(v));
    }
    in_.expect(';', "after the value names");
    return names;
  }

  void valueNames() {
    if (!in_.nextIsNumber()) { // an environment variable's values
      in_.skipStatement();
      return;
    }
    Signal *s = signalRef("VAL_");
    std::vector<ValueName> names;
    if (in_.peek() != ';' && !in_.nextIsNumber()) {
      const size_t at = in_.pos();
      std::string table = in_.identifier("a value or a value table name");
      in_.expect(';', "after the value table name");
      auto it = valueTables_.find(table);
      if (it == valueTables_.end())
        warn(at, "VAL_ refers to unknown value table " + table);
      else
        names = it->second;
    } else {
      names = valueNameList();
    }
    if (s)
      s->valueNames = std::move(names);
  }

  void valueTable() {
    std::string name = in_.identifier("a value table name");
    valueTables_[name] = valueNameList();
  }

  void valueType() {
    Signal *s = signalRef("SIG_VALTYPE_");
    in_.take(':');
    const size_t at = (in_.skipBlanks(), in_.pos());
    const auto type = in_.unsignedNumber("value type 0, 1 or 2", 2);
    in_.expect(';', "after the value type");
    if (!s)
      return;
    s->type = type == 1 ? ValueType::Float : type == 2 ? ValueType::Double : ValueType::Integer;
    if ((type == 1 && s->length != 32) || (type == 2 && s->length != 64))
      in_.failAt(at, "signal " + s->name + " of " + std::to_string(s->length) +
                         " bits cannot hold a " + (type == 1 ? "float" : "double"));
  }

  // The value of a message attribute, or the attribute's default.
  const AttributeValue *messageAttribute(size_t index, const std::string &name) const {
    auto values = messageAttributes_.find(index);
    if (values != messageAttributes_.end()) {
      auto it = values->second.find(name);
      if (it != values->second.end())
        return &it->second;
    }
    auto def = attributeDefs_.find(name);
    return def != attributeDefs_.end() && def->second.defaultValue ? &*def->second.defaultValue
                                                                   : nullptr;
  }

  // An enum attribute's value by name; files give the index or the name.
  std::string enumName(size_t index, const std::string &name) const {
    const AttributeValue *v = messageAttribute(index, name);
    if (!v)
      return {};
    if (v->isString)
      return v->text;
    auto def = attributeDefs_.find(name);
    if (def == attributeDefs_.end())
      return {};
    const auto &names = def->second.enumNames;
    if (v->number < 0 || v->number >= static_cast<double>(names.size()))
      return {};
    return names[static_cast<size_t>(v->number)];
  }

  void applyAttributes() {
    for (size_t i = 0; i < db_.messages_.size(); ++i) {
      Message &m = db_.messages_[i];
      const AttributeValue *cycle = messageAttribute(i, "GenMsgCycleTime");
      if (cycle && !cycle->isString && cycle->number > 0)
        m.cycleTimeMs = cycle->number;
      const std::string format = enumName(i, "VFrameFormat");
      if (format.size() >= 3 && format.compare(format.size() - 3, 3, "_FD") == 0)
        m.fd = true;
      m.brs = m.fd && enumName(i, "CANFD_BRS") == "1";
    }
  }

  Cursor in_;
  std::vector<std::string> &warnings_;
  Database db_;
  Message *current_ = nullptr; // the message SG_ lines belong to
  bool currentIsFrame_ = false;
  std::unordered_map<uint32_t, size_t> rawIds_;
  std::map<std::string, AttributeDef> attributeDefs_;
  std::map<size_t, std::map<std::string, AttributeValue>> messageAttributes_;
  std::map<std::string, std::vector<ValueName>> valueTables_;
};

Database Database::parse(std::string_view text, std::vector<std::string> &warnings) {
  return Reader(text, warnings).read();
}

Database Database::load(const std::string &path, std::vector<std::string> &warnings) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad())
    throw std::runtime_error("cannot read " + path);
  return parse(text.str(), warnings);
}

} // namespace wcantool::dbc
