// SPDX-License-Identifier: MIT
// A candump -L log line of any text: a line that reads prints back as a line
// that reads the same.
#include <string>

#include "FuzzSupport.h"
#include "capture/CandumpLog.h"

using namespace wcantool::capture;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string line(reinterpret_cast<const char *>(data), size);
  LogRecord record;
  std::string error;
  if (!parseLogLine(line, record, error)) {
    require(!error.empty());
    return 0;
  }
  const std::string printed = formatLogRecord(record.timeUs, record.bus, record.frame);
  LogRecord again;
  require(parseLogLine(printed, again, error));
  require(again.timeUs == record.timeUs && again.bus == record.bus);
  // The text keeps no error state indicator, and a CAN FD frame no flag besides it.
  require(again.frame == record.frame);
  return 0;
}
