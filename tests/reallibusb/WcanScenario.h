// Fixture of the scenarios that drive the library through its WCAN_*
// functions over the real libusb and the emulated adapters.
#pragma once

#include <libusb-1.0/libusb.h>

#include <chrono>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "RealLibusb.h"
#include "WcanLibrary.h"

namespace wcanumock {

class WcanScenario : public ::testing::Test {
protected:
  void SetUp() override {
    WCAN_REQUIRE_UMOCKDEV();
    bed_ = &UsbfsTestbed::instance();
    api_ = &wcan();
  }

  void TearDown() override {
    if (api_ != nullptr)
      for (const auto &[type, index] : opened_)
        api_->CloseDevice(type, index);
    if (bed_ != nullptr)
      bed_->removeAll();
  }

  // Plugs in `count` adapters of a type and returns them in the order libusb
  // lists them, which is the order of the library's device index.
  std::vector<int> plugInByIndex(unsigned type, int count) {
    for (int i = 0; i < count; ++i)
      plugged_.push_back(bed_->plugIn(type));
    const std::vector<int> ordered = byIndex();
    EXPECT_EQ(ordered.size(), plugged_.size());
    return ordered;
  }

  // The plugged-in adapters in libusb's order, seen by a context of its own.
  std::vector<int> byIndex() const {
    libusb_context *ctx = nullptr;
    EXPECT_EQ(libusb_init(&ctx), 0);
    libusb_device **list = nullptr;
    const ssize_t n = libusb_get_device_list(ctx, &list);
    std::vector<int> ordered;
    for (ssize_t i = 0; i < n; ++i)
      for (int id : plugged_)
        if (libusb_get_bus_number(list[i]) == bed_->busNumber(id))
          ordered.push_back(id);
    libusb_free_device_list(list, 1);
    libusb_exit(ctx);
    return ordered;
  }

  bool open(unsigned type, unsigned index) {
    const bool ok = api_->OpenDevice(type, index) == 1;
    if (ok)
      opened_.emplace_back(type, index);
    return ok;
  }

  void close(unsigned type, unsigned index) {
    EXPECT_EQ(api_->CloseDevice(type, index), 1);
    for (auto it = opened_.begin(); it != opened_.end(); ++it)
      if (*it == std::make_pair(type, index)) {
        opened_.erase(it);
        break;
      }
  }

  // Waits (sleeping between looks) until the condition holds or the time is up.
  static bool eventually(const std::function<bool()> &condition,
                         std::chrono::milliseconds limit = std::chrono::seconds(15)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  // Unplugs an adapter, leaves it away long enough for the library to find
  // it missing, and plugs it back. Returns the adapter the library reopened
  // and started both channels on again (-1 if none). Among equal adapters that
  // need not be the replugged one: the library reopens by index, and libusb
  // lists a device it learns of by hot-plug before the others.
  int unplugAndReplug(int adapter) {
    std::vector<unsigned> opensBefore;
    for (int id : plugged_)
      opensBefore.push_back(bed_->opens(id));
    bed_->unplug(adapter);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(bed_->opens(adapter), opensBefore.at(position(adapter)))
        << "an unplugged adapter cannot be opened";
    bed_->replug(adapter);
    int restarted = -1;
    const bool done = eventually([&] {
      for (size_t i = 0; i < plugged_.size(); ++i) {
        const int id = plugged_[i];
        if (bed_->opens(id) > opensBefore[i] && bed_->channelStarted(id, 0) &&
            bed_->channelStarted(id, 1))
          restarted = id;
      }
      return restarted >= 0;
    });
    EXPECT_TRUE(done) << "the library did not reopen an adapter and start its channels again";
    return restarted;
  }

  size_t position(int adapter) const {
    for (size_t i = 0; i < plugged_.size(); ++i)
      if (plugged_[i] == adapter)
        return i;
    ADD_FAILURE() << "adapter " << adapter << " not plugged in by this test";
    return 0;
  }

  UsbfsTestbed *bed_ = nullptr;
  const WcanApi *api_ = nullptr;
  std::vector<std::pair<unsigned, unsigned>> opened_;
  std::vector<int> plugged_;
};

} // namespace wcanumock
