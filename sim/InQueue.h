// SPDX-License-Identifier: MIT
// The bytes an adapter has queued on one IN endpoint, served to the host's
// reads in the endpoint's shape. Shared by every way of reaching the models.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>

#include "SimModel.h"

namespace wcansim {

struct InQueue {
  std::deque<Bytes> transfers;
  size_t frontOffset = 0; // bytes of the front transfer already read (streams)
  // A backlog streamed after the queued transfers: one encoded block handed
  // out `backlogLeft` times over, never copied into the queue.
  std::shared_ptr<const Bytes> backlog;
  uint64_t backlogLeft = 0;
  size_t backlogOffset = 0;

  bool empty() const { return transfers.empty() && backlogLeft == 0; }
  void clear() {
    transfers.clear();
    frontOffset = 0;
    backlog.reset();
    backlogLeft = 0;
    backlogOffset = 0;
  }
  void setBacklog(std::shared_ptr<const Bytes> block, uint64_t times) {
    backlogLeft = block && !block->empty() ? times : 0;
    backlog = backlogLeft > 0 ? std::move(block) : nullptr;
    backlogOffset = 0;
  }

  // Moves up to `len` bytes into `buf`: a packet endpoint hands over one
  // transfer (cut to the read), a stream endpoint reads across transfers.
  size_t take(const EndpointShape &shape, uint8_t *buf, size_t len) {
    if (transfers.empty()) {
      return shape.kind == EndpointShape::Stream ? takeBacklog(shape, buf, len) : 0;
    }
    if (shape.kind == EndpointShape::Packet) {
      const Bytes &front = transfers.front();
      const size_t n = std::min(front.size(), len);
      std::copy_n(front.begin(), n, buf);
      transfers.pop_front();
      return n;
    }
    size_t room = readRoom(shape, len);
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

private:
  static size_t readRoom(const EndpointShape &shape, size_t len) {
    return std::min(len, static_cast<size_t>(std::max(shape.maxRead, 0)));
  }

  size_t takeBacklog(const EndpointShape &shape, uint8_t *buf, size_t len) {
    size_t room = readRoom(shape, len);
    size_t n = 0;
    while (room > 0 && backlogLeft > 0) {
      const size_t part = std::min(room, backlog->size() - backlogOffset);
      std::memcpy(buf + n, backlog->data() + backlogOffset, part);
      n += part;
      room -= part;
      backlogOffset += part;
      if (backlogOffset == backlog->size()) {
        backlogOffset = 0;
        if (--backlogLeft == 0) {
          backlog.reset();
        }
      }
    }
    return n;
  }
};

} // namespace wcansim
