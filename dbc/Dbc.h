// SPDX-License-Identifier: MIT
// CAN databases in the DBC format: messages, their signals and how to turn
// frame bytes into physical values and back. Shared by every program around
// the library; it knows nothing of adapters.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace wcantool::dbc {

// A file that cannot be read: where and what was expected.
class ParseError : public std::runtime_error {
public:
  ParseError(unsigned line, unsigned column, const std::string &what);
  unsigned line() const { return line_; }
  unsigned column() const { return column_; }

private:
  unsigned line_;
  unsigned column_;
};

// Values that cannot be put into a frame.
class EncodeError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

enum class ByteOrder { Intel, Motorola };
enum class ValueType { Integer, Float, Double };

struct ValueName {
  int64_t raw;
  std::string name;
};

// Where a signal's bits are, prepared once so that decoding is a load, a
// shift and a mask.
struct BitLayout {
  uint8_t firstByte = 0;
  uint8_t endByte = 0; // one past the last byte the signal touches
  uint8_t shift = 0;
  bool ninthByte = false; // the bits spread over nine bytes
  uint64_t mask = 0;
};

struct Signal {
  std::string name;
  unsigned startBit = 0; // as the file gives it
  unsigned length = 0;
  ByteOrder order = ByteOrder::Intel;
  bool isSigned = false;
  ValueType type = ValueType::Integer;
  double factor = 1;
  double offset = 0;
  double minimum = 0;
  double maximum = 0;
  std::string unit;
  std::string comment;
  bool multiplexer = false;
  std::optional<int64_t> multiplexValue; // present only when the multiplexer has it
  std::vector<ValueName> valueNames;     // sorted by raw value
  BitLayout layout;

  // The name for a raw value from the value table, or nullptr.
  const std::string *nameOf(int64_t raw) const;
  // [minimum, maximum] limits the values unless both are zero.
  bool hasRange() const { return minimum != 0 || maximum != 0; }
};

struct Message {
  uint32_t id = 0; // without the extended flag
  bool extended = false;
  std::string name;
  unsigned length = 0;
  std::string sender;
  std::string comment;
  bool fd = false;
  bool brs = false;
  std::optional<double> cycleTimeMs;
  std::vector<Signal> signals;
  int multiplexerIndex = -1; // into signals

  const Signal *findSignal(std::string_view name) const;
};

// One signal's value in a decoded frame.
struct DecodedSignal {
  const Signal *signal;
  double value;
  int64_t raw;                  // the bits as read (sign-extended for signed signals)
  const std::string *valueName; // from the value table, or nullptr
};

// A frame built from signal values.
struct EncodedFrame {
  uint32_t id = 0;
  bool extended = false;
  bool fd = false;
  bool brs = false;
  uint8_t length = 0;
  std::array<uint8_t, 64> data{};
};

class Database {
public:
  // Reads DBC text. Constructs it does not know are skipped and described in
  // `warnings`; anything else that does not fit throws ParseError.
  static Database parse(std::string_view text, std::vector<std::string> &warnings);
  // Reads a file; a file that cannot be opened throws std::runtime_error.
  static Database load(const std::string &path, std::vector<std::string> &warnings);

  const std::vector<Message> &messages() const { return messages_; }
  const Message *findMessage(uint32_t id, bool extended) const;
  const Message *findMessage(std::string_view name) const;
  const std::string &comment() const { return comment_; }
  const std::map<std::string, std::string> &nodeComments() const { return nodeComments_; }
  const std::vector<std::string> &nodes() const { return nodes_; }

  // Decodes a data frame into `out` (cleared first): the signals of the
  // message with this id that lie within `length` bytes, of the active
  // multiplexer value only. Returns the message, or nullptr if unknown.
  const Message *decode(uint32_t id, bool extended, const uint8_t *data, size_t length,
                        std::vector<DecodedSignal> &out) const;

private:
  friend class Reader;
  void index();

  std::vector<Message> messages_;
  std::unordered_map<uint32_t, size_t> byKey_; // frame id | extended flag
  std::string comment_;
  std::map<std::string, std::string> nodeComments_;
  std::vector<std::string> nodes_;
};

// Fills in a signal's bit layout; false if it does not fit in `messageLength`
// bytes.
bool prepareLayout(Signal &signal, unsigned messageLength);

// Decodes one signal from `padded` (frame bytes followed by at least eight
// zero bytes).
DecodedSignal decodeSignal(const Signal &signal, const uint8_t *padded);

// The physical value a text names: a number, or a name from the value table.
// Throws EncodeError if it is neither.
double parseSignalValue(const Signal &signal, std::string_view text);

// Builds the frame of `message` from physical values; signals not given are
// zero bits. Throws EncodeError for an unknown signal, a value outside the
// signal's range or bits, and a multiplexed signal the multiplexer value does
// not select.
EncodedFrame encode(const Message &message,
                    const std::vector<std::pair<std::string, double>> &values);

// "EngineData: EngineSpeed=1234.5 rpm Gear=3 \"Drive\"".
std::string formatDecoded(const Message &message, const std::vector<DecodedSignal> &signals);

} // namespace wcantool::dbc
