// SPDX-License-Identifier: MIT
// The hexadecimal text conversions on any text of the full length their
// callers guarantee (eight characters and a terminator).
#include <cstring>

#include "FuzzSupport.h"
#include "platform/QUserUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  unsigned char text[9] = {};
  memcpy(text, data, size < 8 ? size : 8);
  const uint32_t word = str2DWord(text);
  if (strlen(reinterpret_cast<char *>(text)) == 8) {
    uint32_t expected = 0;
    for (int i = 0; i < 8; ++i) {
      expected = expected << 4 | char2Hex(static_cast<char>(text[i]));
    }
    require(word == expected);
  }
  return 0;
}
