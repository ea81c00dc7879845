// SPDX-License-Identifier: MIT
// The bytes an adapter has queued on one IN endpoint, served to the host's
// reads in the endpoint's shape. Shared by every way of reaching the models.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "SimModel.h"

namespace wcansim {

struct InQueue {
  std::deque<Bytes> transfers;
  size_t frontOffset = 0; // bytes of the front transfer already read (streams)

  bool empty() const { return transfers.empty(); }
  void clear() {
    transfers.clear();
    frontOffset = 0;
  }

  // Moves up to `len` bytes into `buf`: a packet endpoint hands over one
  // transfer (cut to the read), a stream endpoint reads across transfers.
  size_t take(const EndpointShape &shape, uint8_t *buf, size_t len) {
    if (transfers.empty()) {
      return 0;
    }
    if (shape.kind == EndpointShape::Packet) {
      const Bytes &front = transfers.front();
      const size_t n = std::min(front.size(), len);
      std::copy_n(front.begin(), n, buf);
      transfers.pop_front();
      return n;
    }
    size_t room = std::min(len, static_cast<size_t>(std::max(shape.maxRead, 0)));
    size_t n = 0;
    while (room > 0 && !transfers.empty()) {
      const Bytes &front = transfers.front();
      const size_t part = std::min(room, front.size() - frontOffset);
      std::copy_n(front.begin() + static_cast<std::ptrdiff_t>(frontOffset), part, buf + n);
      n += part;
      room -= part;
      frontOffset += part;
      if (frontOffset == front.size()) {
        transfers.pop_front();
        frontOffset = 0;
      }
    }
    return n;
  }
};

} // namespace wcansim
