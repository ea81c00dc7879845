// SPDX-License-Identifier: MIT
#include "cli/RecordFields.h"

#include <array>
#include <cstdio>

#include "common/Args.h"

namespace wcantool {
namespace {

struct RecordField {
  const char *name;
  unsigned char _WCAN_RECORD_CONFIG::*byte;
  unsigned int _WCAN_RECORD_CONFIG::*word;
};

constexpr std::array<RecordField, 12> kFields = {{
    {"recFlag1", &_WCAN_RECORD_CONFIG::recFlag1, nullptr},
    {"recFlag2", &_WCAN_RECORD_CONFIG::recFlag2, nullptr},
    {"recFlag3", &_WCAN_RECORD_CONFIG::recFlag3, nullptr},
    {"abitParam", &_WCAN_RECORD_CONFIG::abitParam, nullptr},
    {"dbitParam", &_WCAN_RECORD_CONFIG::dbitParam, nullptr},
    {"abitTiming", nullptr, &_WCAN_RECORD_CONFIG::abitTiming},
    {"dbitTiming", nullptr, &_WCAN_RECORD_CONFIG::dbitTiming},
    {"recOptFlag0", &_WCAN_RECORD_CONFIG::recOptFlag0, nullptr},
    {"recOptByte1", &_WCAN_RECORD_CONFIG::recOptByte1, nullptr},
    {"recOptByte2", &_WCAN_RECORD_CONFIG::recOptByte2, nullptr},
    {"recOptFlag1", &_WCAN_RECORD_CONFIG::recOptFlag1, nullptr},
    {"recOptByte3", &_WCAN_RECORD_CONFIG::recOptByte3, nullptr},
}};

} // namespace

std::string recordFieldNames() {
  std::string names;
  for (const RecordField &f : kFields) {
    if (!names.empty())
      names += ' ';
    names += f.name;
  }
  return names;
}

void applyRecordAssignment(_WCAN_RECORD_CONFIG &config, std::string_view assignment) {
  size_t eq = assignment.find('=');
  if (eq == std::string_view::npos)
    throw UsageError{"expected FIELD=VALUE, not '" + std::string(assignment) + "'"};
  std::string_view name = assignment.substr(0, eq);
  for (const RecordField &f : kFields) {
    if (name != f.name)
      continue;
    std::string what(name);
    if (f.word)
      config.*f.word = static_cast<unsigned>(
          parseNumber(assignment.substr(eq + 1), what.c_str(), 0, 0xFFFFFFFFu));
    else
      config.*f.byte = static_cast<unsigned char>(
          parseUnsigned(assignment.substr(eq + 1), what.c_str(), 0, 255));
    return;
  }
  throw UsageError{"unknown settings field '" + std::string(name) +
                   "' (fields: " + recordFieldNames() + ")"};
}

std::string formatRecordConfig(const _WCAN_RECORD_CONFIG &config) {
  std::string out;
  for (const RecordField &f : kFields) {
    char line[64];
    if (f.word)
      std::snprintf(line, sizeof line, "%s=0x%08x\n", f.name, config.*f.word);
    else
      std::snprintf(line, sizeof line, "%s=%u\n", f.name, static_cast<unsigned>(config.*f.byte));
    out += line;
  }
  return out;
}

} // namespace wcantool
