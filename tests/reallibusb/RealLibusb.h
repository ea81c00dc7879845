// SPDX-License-Identifier: MIT
// Shared pieces of the real-libusb test programs.
#pragma once

#include <gtest/gtest.h>

#include "UsbfsTestbed.h"

// Skips a test that was started without umockdev-wrapper.
#define WCAN_REQUIRE_UMOCKDEV()                                                                    \
  do {                                                                                             \
    if (!::wcanumock::inMockEnvironment())                                                         \
      GTEST_SKIP() << "run under umockdev-wrapper";                                                \
  } while (0)
