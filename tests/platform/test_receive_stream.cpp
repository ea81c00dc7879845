// SPDX-License-Identifier: MIT
// The queued receive transfers over the simulated adapters: the bytes keep
// their order across several transfers in flight and their resubmission, a
// stop racing completions frees nothing in use, and a vanished device ends
// the stream with one report.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/BulkInStream.h"
#include "platform/QUserLibUsb.h"
#include "platform/UsbEvents.h"
#include "wcan_sim.h"

namespace {

constexpr unsigned kVid = 0x3068, kPid = 0x0009; // CAN FD adapter, type 41
constexpr uint8_t kStreamIn = 0x83;

class ReceiveStream : public ::testing::Test {
protected:
  void SetUp() override {
    wcansim::reset();
    adapter_ = wcansim::plugIn(41);
    ASSERT_EQ(usb_.OpenUSBDevice(kVid, kPid, 0), 1);
    UsbEvents::instance().startHandling();
  }
  void TearDown() override {
    stream_.stop();
    UsbEvents::instance().stopHandling();
    usb_.CloseUSBDevice();
    wcansim::reset();
  }

  bool start(size_t transfers, size_t bytes) {
    return stream_.start(
        usb_, kStreamIn, transfers, bytes,
        [this](const uint8_t *data, size_t length) {
          std::lock_guard<std::mutex> guard(mutex_);
          got_.insert(got_.end(), data, data + length);
        },
        [this](libusb_transfer_status status) {
          std::lock_guard<std::mutex> guard(mutex_);
          ends_.push_back(status);
        });
  }
  // Pushes `n` numbered bytes onto the stream endpoint, remembering them.
  void push(size_t n) {
    wcansim::Bytes bytes(n);
    for (uint8_t &b : bytes) {
      b = static_cast<uint8_t>(pushed_.size() % 251);
      pushed_.push_back(b);
    }
    wcansim::pushIn(adapter_, kStreamIn, bytes);
  }
  template <typename Pred> bool eventually(Pred pred) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
      {
        std::lock_guard<std::mutex> guard(mutex_);
        if (pred()) {
          return true;
        }
      }
      if (std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  bool gotIsPrefixOfPushed() {
    std::lock_guard<std::mutex> guard(mutex_);
    return got_.size() <= pushed_.size() && std::equal(got_.begin(), got_.end(), pushed_.begin());
  }

  wcansim::AdapterId adapter_ = -1;
  QUserLibUsb usb_;
  BulkInStream stream_;
  std::mutex mutex_;
  std::vector<uint8_t> got_;
  std::vector<uint8_t> pushed_;
  std::vector<libusb_transfer_status> ends_;
};

TEST_F(ReceiveStream, BytesKeepTheirOrderAcrossQueuedTransfers) {
  ASSERT_TRUE(start(4, 7)); // every push spans several transfers and resubmissions
  for (int i = 0; i < 5; ++i) {
    push(100);
  }
  EXPECT_TRUE(eventually([&] { return got_.size() == pushed_.size(); }));
  EXPECT_TRUE(gotIsPrefixOfPushed());
  EXPECT_TRUE(stream_.healthy());
}

TEST_F(ReceiveStream, StopRacingCompletionsLosesNoOrderAndReportsNothing) {
  for (int round = 0; round < 100; ++round) {
    ASSERT_TRUE(start(8, 16));
    push(64);
    if (round % 2 == 0) {
      std::this_thread::yield();
    }
    stream_.stop();
    ASSERT_FALSE(stream_.started());
  }
  EXPECT_TRUE(gotIsPrefixOfPushed());
  std::lock_guard<std::mutex> guard(mutex_);
  EXPECT_TRUE(ends_.empty()) << "a cancel is no trouble";
}

TEST_F(ReceiveStream, VanishedDeviceEndsTheStreamWithOneReport) {
  ASSERT_TRUE(start(4, 64));
  wcansim::unplug(adapter_);
  EXPECT_TRUE(eventually([&] { return !ends_.empty(); }));
  EXPECT_FALSE(stream_.healthy());
  stream_.stop();
  std::lock_guard<std::mutex> guard(mutex_);
  EXPECT_EQ(ends_, std::vector<libusb_transfer_status>{LIBUSB_TRANSFER_NO_DEVICE});
}

} // namespace
