// SPDX-License-Identifier: MIT
// The recording settings of a CAN recorder channel as named fields, for
// `wcan record show` and `wcan record set FIELD=VALUE`.
#pragma once

#include <string>
#include <string_view>

#include "wcan.h"

namespace wcantool {

// "recFlag1 recFlag2 ..." in record order.
std::string recordFieldNames();

// Applies one "FIELD=VALUE" (decimal or 0x hex); throws UsageError for an
// unknown field or a value that does not fit.
void applyRecordAssignment(_WCAN_RECORD_CONFIG &config, std::string_view assignment);

// One "FIELD=VALUE" line per field; timing words in hex.
std::string formatRecordConfig(const _WCAN_RECORD_CONFIG &config);

} // namespace wcantool
