// The log configuration reader on arbitrary file contents, line by line as
// the logger reads them (at most 255 characters a line).
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/QUserLog.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  LogSettings settings{1, {}, false};
  bool inLogConfig = false;
  size_t at = 0;
  while (at < size) {
    char line[256];
    size_t len = 0;
    while (at < size && len < sizeof line - 1) {
      const char c = static_cast<char>(data[at++]);
      line[len++] = c;
      if (c == '\n') {
        break;
      }
    }
    line[len] = '\0';
    applyLogConfigLine(line, inLogConfig, settings);
  }
  if (settings.level > 5 || memchr(settings.path, '\0', sizeof settings.path) == nullptr) {
    __builtin_trap();
  }
  return 0;
}
