// SPDX-License-Identifier: MIT
// The log configuration reader on arbitrary file contents, line by line as
// the logger reads them (at most 255 characters a line).
#include <cstring>

#include "FuzzSupport.h"
#include "platform/QUserLog.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  LogSettings settings{1, {}, false};
  bool inLogConfig = false;
  for (size_t at = 0; at < size;) {
    char line[256];
    size_t len = 0;
    while (at < size && len < sizeof line - 1) {
      line[len++] = static_cast<char>(data[at++]);
      if (line[len - 1] == '\n') {
        break;
      }
    }
    line[len] = '\0';
    applyLogConfigLine(line, inLogConfig, settings);
  }
  require(settings.level <= 5 && memchr(settings.path, '\0', sizeof settings.path) != nullptr);
  return 0;
}
