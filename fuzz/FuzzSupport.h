// SPDX-License-Identifier: MIT
// What the fuzz targets share: a check that stops the run, and the reads of
// random sizes in which the USB transfers hand bytes to a receive path.
#pragma once
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

inline void require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// Up to 64 bytes of read sizes from the front of the input, drawn apart from
// the bytes they split; none when default-made.
class ReadSizes {
public:
  ReadSizes() : sizes_(nullptr, 0) {}
  explicit ReadSizes(FuzzedDataProvider &in)
      : bytes_(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 64))),
        sizes_(bytes_.data(), bytes_.size()) {}
  ReadSizes(const ReadSizes &) = delete;
  ReadSizes &operator=(const ReadSizes &) = delete;

  // Hands `bytes` to feed(data, count) in reads of 1..maxRead bytes; once the
  // sizes run out, the rest comes in reads of `restRead` bytes.
  template <typename Feed>
  void feed(const std::vector<uint8_t> &bytes, size_t maxRead, size_t restRead, Feed feed) {
    for (size_t at = 0; at < bytes.size();) {
      const size_t n = sizes_.remaining_bytes() > 0
                           ? sizes_.ConsumeIntegralInRange<size_t>(1, maxRead)
                           : restRead;
      const size_t take = std::min(n, bytes.size() - at);
      feed(bytes.data() + at, take);
      at += take;
    }
  }

private:
  std::vector<uint8_t> bytes_;
  FuzzedDataProvider sizes_;
};
