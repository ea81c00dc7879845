// SPDX-License-Identifier: MIT
#include "RealLibusb.h"

// The test bed ends after the last test, so its temporary sysfs tree goes.
int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  wcanumock::UsbfsTestbed::shutdown();
  return result;
}
