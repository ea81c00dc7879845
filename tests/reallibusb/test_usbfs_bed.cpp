// SPDX-License-Identifier: MIT
// The emulated usbfs seen through a bare libusb client: what the library will
// rely on when it runs over the test bed.
#include <libusb-1.0/libusb.h>

#include <chrono>
#include <vector>

#include "RealLibusb.h"

namespace {

using wcanumock::UsbfsTestbed;

constexpr unsigned kFdType = 64; // 4-channel CAN FD adapter
constexpr uint16_t kFdVid = 0x0471;
constexpr uint16_t kFdPid = 0x3014;

class UsbfsBed : public ::testing::Test {
protected:
  void SetUp() override {
    WCAN_REQUIRE_UMOCKDEV();
    bed_ = &UsbfsTestbed::instance();
  }
  void TearDown() override {
    if (handle_ != nullptr)
      libusb_close(handle_);
    if (ctx_ != nullptr)
      libusb_exit(ctx_);
    if (bed_ != nullptr)
      bed_->removeAll();
  }

  // A context created after the adapters were plugged in finds them by scan.
  libusb_context *context() {
    if (ctx_ == nullptr) {
      EXPECT_EQ(libusb_init(&ctx_), 0);
    }
    return ctx_;
  }

  // Devices with the ids, in libusb's order.
  std::vector<libusb_device *> matching(libusb_device **list, ssize_t n, uint16_t vid,
                                        uint16_t pid) {
    std::vector<libusb_device *> found;
    for (ssize_t i = 0; i < n; ++i) {
      libusb_device_descriptor d{};
      if (libusb_get_device_descriptor(list[i], &d) == 0 && d.idVendor == vid && d.idProduct == pid)
        found.push_back(list[i]);
    }
    return found;
  }

  libusb_device_handle *openBus(uint8_t bus) {
    libusb_device **list = nullptr;
    const ssize_t n = libusb_get_device_list(context(), &list);
    for (ssize_t i = 0; i < n && handle_ == nullptr; ++i) {
      if (libusb_get_bus_number(list[i]) == bus) {
        EXPECT_EQ(libusb_open(list[i], &handle_), 0);
      }
    }
    libusb_free_device_list(list, 1);
    return handle_;
  }

  // A version request of the CAN FD adapter; the reply echoes 55 01.
  void expectVersionReply() {
    unsigned char cmd[64] = {0x55, 0x01};
    int done = 0;
    ASSERT_EQ(libusb_interrupt_transfer(handle_, 0x01, cmd, sizeof cmd, &done, 500), 0);
    EXPECT_EQ(done, 64);
    unsigned char reply[64] = {};
    ASSERT_EQ(libusb_interrupt_transfer(handle_, 0x81, reply, sizeof reply, &done, 500), 0);
    ASSERT_GE(done, 4);
    EXPECT_EQ(reply[0], 0x55);
    EXPECT_EQ(reply[1], 0x01);
    EXPECT_EQ(reply[3], 0x00);
  }

  UsbfsTestbed *bed_ = nullptr;
  libusb_context *ctx_ = nullptr;
  libusb_device_handle *handle_ = nullptr;
};

TEST_F(UsbfsBed, EachAdapterIsADeviceOnItsOwnBusWithItsEndpoints) {
  const int a = bed_->plugIn(kFdType);
  const int b = bed_->plugIn(kFdType);
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  libusb_device **list = nullptr;
  const ssize_t n = libusb_get_device_list(context(), &list);
  const auto found = matching(list, n, kFdVid, kFdPid);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_NE(libusb_get_bus_number(found[0]), libusb_get_bus_number(found[1]));
  libusb_config_descriptor *config = nullptr;
  ASSERT_EQ(libusb_get_active_config_descriptor(found[0], &config), 0);
  ASSERT_EQ(config->bNumInterfaces, 1);
  const libusb_interface_descriptor &alt = config->interface[0].altsetting[0];
  ASSERT_EQ(alt.bNumEndpoints, 5);
  EXPECT_EQ(alt.endpoint[0].bEndpointAddress, 0x01);
  EXPECT_EQ(alt.endpoint[0].bmAttributes & 3, LIBUSB_TRANSFER_TYPE_INTERRUPT);
  EXPECT_EQ(alt.endpoint[4].bEndpointAddress, 0x83);
  EXPECT_EQ(alt.endpoint[4].bmAttributes & 3, LIBUSB_TRANSFER_TYPE_BULK);
  libusb_free_config_descriptor(config);
  libusb_free_device_list(list, 1);
}

TEST_F(UsbfsBed, RefusesTransfersTheEndpointsDoNotCarry) {
  const int a = bed_->plugIn(kFdType);
  ASSERT_NE(openBus(bed_->busNumber(a)), nullptr);
  struct Case {
    uint8_t ep;
    bool interrupt;
    int expected;
  };
  const Case cases[] = {
      {0x02, true, LIBUSB_ERROR_IO},  // interrupt URB on a bulk endpoint
      {0x05, false, LIBUSB_ERROR_IO}, // no such endpoint
      {0x01, false, 0},               // a bulk URB on an interrupt endpoint is allowed
  };
  for (const Case &c : cases) {
    unsigned char data[8] = {0x55, 0x01};
    int done = 0;
    const int r = c.interrupt ? libusb_interrupt_transfer(handle_, c.ep, data, 8, &done, 200)
                              : libusb_bulk_transfer(handle_, c.ep, data, 8, &done, 200);
    EXPECT_EQ(r, c.expected) << "endpoint " << int(c.ep);
  }
}

void LIBUSB_CALL markDone(libusb_transfer *t) { *static_cast<int *>(t->user_data) = 1; }

TEST_F(UsbfsBed, UnplugEndsAPendingReadAndReplugBringsTheAdapterBack) {
  const int a = bed_->plugIn(kFdType);
  const uint8_t bus = bed_->busNumber(a);
  ASSERT_NE(openBus(bus), nullptr);

  libusb_transfer *t = libusb_alloc_transfer(0);
  unsigned char buf[512];
  int completed = 0;
  libusb_fill_bulk_transfer(t, handle_, 0x83, buf, sizeof buf, markDone, &completed, 10000);
  ASSERT_EQ(libusb_submit_transfer(t), 0);
  const auto start = std::chrono::steady_clock::now();
  bed_->unplug(a);
  while (completed == 0)
    libusb_handle_events_completed(ctx_, &completed);
  EXPECT_EQ(t->status, LIBUSB_TRANSFER_NO_DEVICE);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  libusb_free_transfer(t);

  unsigned char cmd[8] = {0x55, 0x01};
  int done = 0;
  EXPECT_EQ(libusb_interrupt_transfer(handle_, 0x01, cmd, 8, &done, 200), LIBUSB_ERROR_NO_DEVICE);
  libusb_close(handle_);
  handle_ = nullptr;
  EXPECT_EQ(openBus(bus), nullptr) << "an unplugged adapter is not listed";

  bed_->replug(a);
  ASSERT_NE(openBus(bus), nullptr);
  EXPECT_EQ(libusb_reset_device(handle_), 0);
  expectVersionReply();
}

} // namespace
