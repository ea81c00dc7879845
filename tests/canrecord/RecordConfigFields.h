// SPDX-License-Identifier: MIT
// Every field of a recorder settings record as one comparable (and printable)
// value, so records compare without looking at their padding.
#pragma once

#include <tuple>

#include "wcan.h"

inline auto recordFields(const _WCAN_RECORD_CONFIG &c) {
  return std::make_tuple(+c.reserved0, +c.recFlag1, +c.recFlag2, +c.recFlag3, +c.abitParam,
                         +c.dbitParam, c.abitTiming, c.dbitTiming, +c.recOptFlag0, +c.recOptByte1,
                         +c.recOptByte2, +c.recOptFlag1, +c.recOptByte3);
}
