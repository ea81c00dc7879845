// SPDX-License-Identifier: MIT
// A clean simulation for each test: no adapters plugged in, pacing off unless
// the test turns it on, and the pacing of the process restored afterwards.
#pragma once

#include <gtest/gtest.h>

#include "sim/wcan_sim.h"

namespace wcansim {

class SimUsbHost : public ::testing::Test {
public:
  bool pacedBefore = true;

  void SetUp() override {
    reset();
    pacedBefore = pacing();
    setPacing(false);
  }
  void TearDown() override {
    reset();
    setPacing(pacedBefore);
  }
};

} // namespace wcansim
