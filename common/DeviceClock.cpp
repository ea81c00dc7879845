// SPDX-License-Identifier: MIT
#include "common/DeviceClock.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace wcantool {

DeviceClock::DeviceClock(unsigned counterBits)
    : bits_(std::clamp(counterBits, 1u, 32u)), mask_((uint64_t{1} << bits_) - 1) {}

void DeviceClock::anchor(uint64_t counter, int64_t hostNowUs) {
  anchored_ = true;
  originUs_ = hostNowUs - static_cast<int64_t>(counter);
  lastExtended_ = static_cast<int64_t>(counter);
}

// Behind by less than a restart's margin, while the host saw too little time
// pass for the counter to have come round again.
int64_t DeviceClock::behindLast(uint64_t counter, int64_t hostNowUs) const {
  const int64_t behind = static_cast<int64_t>((lastCounter_ - counter) & mask_);
  const int64_t halfSpan = static_cast<int64_t>(mask_ / 2);
  const bool late = behind <= std::min(kRestartUs, halfSpan) && hostNowUs - lastHostUs_ < halfSpan;
  return late ? behind : 0;
}

int64_t DeviceClock::toEpochUs(uint32_t rawCounter, int64_t hostNowUs) {
  const uint64_t counter = rawCounter & mask_;
  if (const int64_t behind = anchored_ ? behindLast(counter, hostNowUs) : 0)
    return originUs_ + lastExtended_ - behind;
  if (!anchored_) {
    anchor(counter, hostNowUs);
  } else {
    const int64_t span = static_cast<int64_t>(mask_) + 1;
    const int64_t forward = static_cast<int64_t>((counter - lastCounter_) & mask_);
    // Turns the counter made unseen, judged by how much time the host saw
    // pass: after a long silence the counter may have wrapped many times.
    const int64_t hostElapsed = std::max<int64_t>(0, hostNowUs - lastHostUs_);
    const int64_t wraps = std::max<int64_t>(
        0, std::llround(static_cast<double>(hostElapsed - forward) / static_cast<double>(span)));
    lastExtended_ += forward + wraps * span;
    const int64_t early = originUs_ + lastExtended_ - hostNowUs;
    if (early > kRestartUs) {
      anchor(counter, hostNowUs);
    } else if (early > 0) {
      originUs_ -= early;
    }
  }
  lastCounter_ = counter;
  lastHostUs_ = hostNowUs;
  lastEpochUs_ = std::max(lastEpochUs_, originUs_ + lastExtended_);
  return lastEpochUs_;
}

void DeviceClock::toEpochUs(const uint32_t *counters, size_t count, int64_t hostNowUs,
                            int64_t *epochUs) {
  if (count == 0)
    return;
  const uint64_t last = counters[count - 1] & mask_;
  for (size_t i = 0; i < count; ++i) {
    const int64_t before = static_cast<int64_t>((last - (counters[i] & mask_)) & mask_);
    epochUs[i] = toEpochUs(counters[i], hostNowUs - before);
  }
}

int64_t hostEpochUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

} // namespace wcantool
