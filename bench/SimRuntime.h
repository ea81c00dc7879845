// SPDX-License-Identifier: MIT
// The library and its simulation, loaded once for a whole benchmark run as
// the tool loads them.
#pragma once

#include "common/Runtime.h"

inline const wcantool::Runtime &simulatedRuntime() {
  static const wcantool::Runtime rt([] {
    wcantool::LoadOptions o;
    o.simulate = true;
    return o;
  }());
  return rt;
}
