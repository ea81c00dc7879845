// SPDX-License-Identifier: MIT
// The DBC reader on any text, then every message it accepts through the
// decoder on the input's own bytes and back through the encoder.
#include <algorithm>
#include <string_view>

#include "FuzzSupport.h"
#include "dbc/Dbc.h"

using namespace wcantool::dbc;

namespace {

constexpr size_t kMaxMessages = 32;

void decodeAndEncode(const Database &db, const Message &m, const uint8_t *data, size_t size) {
  std::vector<DecodedSignal> decoded;
  const size_t length = std::min<size_t>(size, 64);
  if (!db.decode(m.id, m.extended, data, length, decoded))
    return;
  require(decoded.size() <= m.signals.size());
  formatDecoded(m, decoded);
  std::vector<std::pair<std::string, double>> values;
  for (const DecodedSignal &d : decoded)
    values.emplace_back(d.signal->name, d.value);
  try {
    const EncodedFrame f = encode(m, values);
    require(f.length <= 64);
  } catch (const EncodeError &) {
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<std::string> warnings;
  try {
    const Database db =
        Database::parse(std::string_view(reinterpret_cast<const char *>(data), size), warnings);
    require(warnings.size() <= 101);
    for (size_t i = 0; i < std::min(db.messages().size(), kMaxMessages); ++i)
      decodeAndEncode(db, db.messages()[i], data, size);
  } catch (const ParseError &) {
  }
  return 0;
}
