#include <vector>

#include "RealLibusb.h"

namespace wcanumock {

namespace {
std::vector<std::function<void()>> &cleanups() {
  static std::vector<std::function<void()>> list;
  return list;
}
} // namespace

void atProgramEnd(std::function<void()> cleanup) { cleanups().push_back(std::move(cleanup)); }

} // namespace wcanumock

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  for (auto &cleanup : wcanumock::cleanups())
    cleanup();
  wcanumock::UsbfsTestbed::shutdown();
  return result;
}
