// SPDX-License-Identifier: MIT
// Frames as the tests write them: identifier, format, bytes, then the CAN FD
// flags.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "common/FrameSyntax.h"

namespace wcantool::testframes {

inline Frame frame(uint32_t id, bool extended, const std::vector<uint8_t> &data, bool fd = false,
                   bool brs = false) {
  Frame f;
  f.id = id;
  f.extended = extended;
  f.fd = fd;
  f.brs = brs;
  f.len = static_cast<uint8_t>(data.size());
  std::copy(data.begin(), data.end(), f.data.begin());
  return f;
}

inline Frame remote(uint32_t id, bool extended, uint8_t len) {
  Frame f = frame(id, extended, {});
  f.remote = true;
  f.len = len;
  return f;
}

} // namespace wcantool::testframes
