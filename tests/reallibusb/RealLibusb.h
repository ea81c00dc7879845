// Shared pieces of the real-libusb test programs.
#pragma once

#include <functional>

#include <gtest/gtest.h>

#include "UsbfsTestbed.h"

namespace wcanumock {

// Runs after every test of the program, before the test bed ends (the
// library under test is unloaded there, while its devices still answer).
void atProgramEnd(std::function<void()> cleanup);

} // namespace wcanumock

// Skips a test that was started without umockdev-wrapper.
#define WCAN_REQUIRE_UMOCKDEV()                                                                    \
  do {                                                                                             \
    if (!::wcanumock::inMockEnvironment())                                                         \
      GTEST_SKIP() << "run under umockdev-wrapper";                                                \
  } while (0)
