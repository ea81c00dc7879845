// SPDX-License-Identifier: MIT
// A host driving the simulated CAN FD adapter through plain libusb calls:
// the fixture of the simulation layer's own tests. Frames cross the bus at
// once (pacing off) unless a test turns pacing on.
#pragma once

#include <gtest/gtest.h>
#include <libusb-1.0/libusb.h>
#include <time.h>

#include <vector>

#include "sim/wcan_sim.h"

namespace wcansim {

constexpr uint8_t kCmd = 0x01, kReply = 0x81, kData = 0x02, kStream = 0x83;

inline double threadCpuMs() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

class SimUsbHost : public ::testing::Test {
public:
  libusb_context *ctx = nullptr;
  std::vector<libusb_device_handle *> handles;
  bool pacedBefore = true;

  void SetUp() override {
    reset();
    pacedBefore = pacing();
    setPacing(false);
    ASSERT_EQ(libusb_init(&ctx), 0);
  }
  void TearDown() override {
    for (auto *h : handles)
      libusb_close(h);
    libusb_exit(ctx);
    reset();
    setPacing(pacedBefore);
  }

  // The devices with these ids, in list order; opened (and closed at the end)
  // when `open` is set.
  std::vector<uint8_t> find(libusb_context *c, uint16_t vid, uint16_t pid,
                            libusb_device_handle **open = nullptr, int index = 0) {
    libusb_device **list = nullptr;
    const ssize_t n = libusb_get_device_list(c, &list);
    std::vector<uint8_t> found;
    for (ssize_t i = 0; i < n; ++i) {
      libusb_device_descriptor d{};
      EXPECT_EQ(libusb_get_device_descriptor(list[i], &d), 0);
      if (d.idVendor != vid || d.idProduct != pid)
        continue;
      if (open != nullptr && index-- == 0 && libusb_open(list[i], open) == 0)
        handles.push_back(*open);
      found.push_back(libusb_get_device_address(list[i]));
    }
    libusb_free_device_list(list, 1);
    return found;
  }
  libusb_device_handle *openFd(int index = 0) {
    libusb_device_handle *h = nullptr;
    find(ctx, 0x3068, 0x0009, &h, index);
    return h;
  }

  // The bytes written, or a negative libusb error.
  static int send(libusb_device_handle *h, uint8_t ep, Bytes bytes, unsigned timeoutMs = 1000) {
    int n = -1;
    const int rc = libusb_interrupt_transfer(h, ep, bytes.data(), static_cast<int>(bytes.size()),
                                             &n, timeoutMs);
    return rc == 0 ? n : rc;
  }
  static Bytes receive(libusb_device_handle *h, uint8_t ep, int room = 64,
                       unsigned timeoutMs = 200) {
    Bytes buf(static_cast<size_t>(room));
    int n = -1;
    const int rc = libusb_bulk_transfer(h, ep, buf.data(), room, &n, timeoutMs);
    EXPECT_TRUE(rc == 0 || n == 0);
    buf.resize(rc == 0 ? static_cast<size_t>(n) : 0);
    return buf;
  }
  static Bytes command(libusb_device_handle *h, Bytes cmd) {
    EXPECT_EQ(send(h, kCmd, cmd), static_cast<int>(cmd.size()));
    return receive(h, kReply);
  }
  static void startChannel(libusb_device_handle *h, uint8_t ch) {
    ASSERT_EQ(command(h, {0x55, 0x0E, 0x02, 0x00, static_cast<uint8_t>(ch << 4)}).at(3), 0);
  }
  // Both phases at 60 MHz / (prescaler + 1) / 10 quanta: 5 gives 1 Mbit/s,
  // 1199 gives 5 kbit/s. Mode 1 is listen-only.
  static void initChannel(libusb_device_handle *h, uint8_t ch, uint16_t prescalerM1,
                          uint8_t mode = 0) {
    const auto lo = static_cast<uint8_t>(prescalerM1), hi = static_cast<uint8_t>(prescalerM1 >> 8);
    Bytes init{0x55, 0x03, ch, 0x01, 0x00, mode, 60, 0, lo, hi, 0, 6,
               0,    1,    0,  60,   0,    lo,   hi, 0, 6,  0,  1, 0};
    ASSERT_EQ(command(h, init).at(3), 0);
  }
  static void makeListenOnly(libusb_device_handle *h, uint8_t ch) { initChannel(h, ch, 5, 1); }
  // A data frame of records: each a classic frame with bytes 11 22, or a
  // 64-byte CAN FD frame without bit-rate switch.
  struct Record {
    uint8_t ch;
    uint16_t id;
    bool fd = false;
  };
  static Bytes dataFrame(const std::vector<Record> &records) {
    Bytes f{0x55, 0xF2, 0, 0, 0, 0, static_cast<uint8_t>(records.size())};
    for (const Record &r : records) {
      Bytes record(r.fd ? 75 : 19, 0);
      record[0] = static_cast<uint8_t>(r.ch << 4);
      record[1] = r.fd ? 0x01 : 0x00;
      record[6] = static_cast<uint8_t>(r.id);
      record[7] = static_cast<uint8_t>(r.id >> 8);
      record[10] = r.fd ? 64 : 2;
      record[11] = 0x11;
      record[12] = 0x22;
      f.insert(f.end(), record.begin(), record.end());
    }
    const size_t payload = f.size() - 7;
    f[4] = static_cast<uint8_t>(payload);
    f[5] = static_cast<uint8_t>(payload >> 8);
    return f;
  }
  static Bytes dataFrame(uint8_t ch, uint16_t id, bool fd = false) {
    return dataFrame(std::vector<Record>{{ch, id, fd}});
  }
};

} // namespace wcansim
