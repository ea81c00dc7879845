// SPDX-License-Identifier: MIT
// The USB wrapper over the simulated adapters: selection among equal
// devices, the link flag, the once-per-condition log lines and restart.
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>

#include "platform/QUserLibUsb.h"
#include "wcan_sim.h"

namespace {

constexpr unsigned kVid = 0x3068, kPid = 0x0009; // CAN FD adapter, type 41
constexpr unsigned char kCmdOut = 0x01, kReplyIn = 0x81;

class Wrapper : public ::testing::Test {
protected:
  void SetUp() override { wcansim::reset(); }
  void TearDown() override { wcansim::reset(); }

  // Runs `body` and returns what it printed on standard output (the log).
  template <typename Body> static std::string logOf(Body body) {
    ::testing::internal::CaptureStdout();
    body();
    return ::testing::internal::GetCapturedStdout();
  }
  static int countOf(const std::string &text, const std::string &what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
      ++n;
    }
    return n;
  }
};

TEST_F(Wrapper, NothingOpenWritesFailAndReadsAreEmpty) {
  QUserLibUsb usb;
  unsigned char buffer[8] = {0x55, 0x01, 0x01, 0x01};
  EXPECT_EQ(usb.WriteUSBDevice(buffer, 4, kCmdOut, 10), -1);
  EXPECT_EQ(usb.bulkWriteUSBDevice(buffer, 4, 0x02, 10), -1);
  EXPECT_EQ(usb.ReadUSBDevice(buffer, 8, kReplyIn, 10), 0);
  EXPECT_EQ(usb.bulkReadUSBDevice(buffer, 8, 0x83, 10), 0);
  EXPECT_EQ(usb.CloseUSBDevice(), 1);
  EXPECT_EQ(usb.GetUSBDeviceLinkStatus(), 0);
}

TEST_F(Wrapper, IndexSelectsAmongEqualDevicesInEnumerationOrder) {
  const wcansim::AdapterId adapters[] = {wcansim::plugIn(41), wcansim::plugIn(41),
                                         wcansim::plugIn(41)};
  unsigned char command[4] = {0x55, 0x01, 0x01, 0x01};
  for (int index = 0; index < 3; ++index) {
    QUserLibUsb usb;
    ASSERT_EQ(usb.OpenUSBDevice(kVid, kPid, index), 1);
    EXPECT_EQ(usb.GetUSBDeviceLinkStatus(), 1);
    EXPECT_EQ(usb.WriteUSBDevice(command, 4, kCmdOut, 100), 4);
    for (int other = 0; other < 3; ++other) {
      EXPECT_EQ(wcansim::written(adapters[other], kCmdOut).size(), other == index ? 1u : 0u)
          << "index " << index << " must reach adapter " << index;
    }
    wcansim::clearWritten(adapters[index]);
  }
}

TEST_F(Wrapper, MissingDeviceIsLoggedOnceUntilAReadSucceeds) {
  wcansim::plugIn(41);
  QUserLibUsb usb;
  const std::string log = logOf([&] {
    EXPECT_EQ(usb.OpenUSBDevice(kVid, kPid, 3), 0);
    EXPECT_EQ(usb.OpenUSBDevice(kVid, kPid, 3), 0);
  });
  EXPECT_EQ(countOf(log, "DRV Tip:USB Device<3068:0009:3> Not Exist..."), 1) << log;

  // A successful read clears the memory, so the next miss is logged again.
  ASSERT_EQ(usb.OpenUSBDevice(kVid, kPid, 0), 1);
  unsigned char command[4] = {0x55, 0x01, 0x01, 0x01}, reply[64];
  usb.WriteUSBDevice(command, 4, kCmdOut, 100);
  ASSERT_GT(usb.ReadUSBDevice(reply, sizeof reply, kReplyIn, 100), 0);
  QUserLibUsb other;
  EXPECT_EQ(countOf(logOf([&] { other.OpenUSBDevice(kVid, kPid, 5); }), "Not Exist..."), 1);
}

TEST_F(Wrapper, UnplugDropsTheLinkOnceAndRestartBringsItBack) {
  const wcansim::AdapterId adapter = wcansim::plugIn(41);
  QUserLibUsb usb;
  ASSERT_EQ(usb.OpenUSBDevice(kVid, kPid, 0), 1);
  wcansim::unplug(adapter);
  unsigned char buffer[64] = {0x55, 0x01, 0x01, 0x01};
  const std::string log = logOf([&] {
    EXPECT_EQ(usb.WriteUSBDevice(buffer, 4, kCmdOut, 100), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(usb.ReadUSBDevice(buffer, 64, kReplyIn, 100), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(usb.bulkReadUSBDevice(buffer, 64, 0x83, 100), LIBUSB_ERROR_NO_DEVICE);
  });
  EXPECT_EQ(usb.GetUSBDeviceLinkStatus(), 0);
  EXPECT_EQ(countOf(log, "USB Device<0> DisLink..."), 1) << log;
  EXPECT_EQ(countOf(log, "write 4byte fail,ret=-4 "), 1) << log;
  EXPECT_EQ(countOf(log, "read fail,ret=-4"), 1) << "one memory for every read: " << log;

  logOf([&] { usb.RestartUSBDevice(); });
  EXPECT_EQ(usb.GetUSBDeviceLinkStatus(), 0) << "still unplugged";
  wcansim::replug(adapter);
  logOf([&] { usb.RestartUSBDevice(); });
  EXPECT_EQ(usb.GetUSBDeviceLinkStatus(), 1);
  EXPECT_EQ(usb.WriteUSBDevice(buffer, 4, kCmdOut, 100), 4);
}

TEST_F(Wrapper, FailuresAreLoggedOncePerCondition) {
  const wcansim::AdapterId adapter = wcansim::plugIn(41);
  wcansim::setSilent(adapter, true);
  QUserLibUsb usb;
  ASSERT_EQ(usb.OpenUSBDevice(kVid, kPid, 0), 1);
  unsigned char buffer[64];
  const std::string log = logOf([&] {
    EXPECT_EQ(usb.ReadUSBDevice(buffer, 64, kReplyIn, 5), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(usb.ReadUSBDevice(buffer, 64, kReplyIn, 5), LIBUSB_ERROR_TIMEOUT);
  });
  EXPECT_EQ(log, "") << "time-outs are never logged";
  EXPECT_EQ(usb.GetUSBDeviceLinkStatus(), 1) << "only a vanished device drops the link";
}

TEST(AdapterIdentity, SerialNumbersWinOverPathsAndPathsMustBeKnown) {
  const auto id = [](const char *serial, uint8_t bus, std::initializer_list<uint8_t> ports,
                     uint16_t pid = kPid) {
    UsbAdapterIdentity i;
    i.vendorId = kVid;
    i.productId = pid;
    i.serial = serial;
    i.bus = bus;
    i.portCount = static_cast<int>(ports.size());
    std::copy(ports.begin(), ports.end(), i.ports);
    return i;
  };
  UsbAdapterIdentity unknownPath = id("", 1, {});
  unknownPath.portCount = -1;
  const struct {
    const char *name;
    UsbAdapterIdentity a, b;
    bool same;
  } cases[] = {
      {"same serial, moved to another socket", id("S1", 1, {2}), id("S1", 3, {1, 4}), true},
      {"other serial, same socket", id("S1", 1, {2}), id("S2", 1, {2}), false},
      {"no serial, same socket", id("", 1, {2, 3}), id("", 1, {2, 3}), true},
      {"no serial, other port", id("", 1, {2, 3}), id("", 1, {2, 4}), false},
      {"no serial, other bus", id("", 1, {2}), id("", 2, {2}), false},
      {"one serial missing, same socket", id("S1", 1, {2}), id("", 1, {2}), true},
      {"root of its own bus", id("", 5, {}), id("", 5, {}), true},
      {"path unknown", unknownPath, unknownPath, false},
      {"other product, same serial", id("S1", 1, {2}), id("S1", 1, {2}, 0x1200), false},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.a.sameAdapter(c.b), c.same) << c.name;
    EXPECT_EQ(c.b.sameAdapter(c.a), c.same) << c.name << " (the other way)";
  }
}

TEST_F(Wrapper, OpenRemembersWhereTheAdapterIsAndWhatItIsCalled) {
  wcansim::plugIn(41);
  wcansim::plugIn(4);
  QUserLibUsb fd, classic;
  ASSERT_EQ(fd.OpenUSBDevice(kVid, kPid, 0), 1);
  ASSERT_EQ(classic.OpenUSBDevice(0x0471, 0x1200, 0), 1);
  EXPECT_FALSE(fd.identity().serial.empty());
  EXPECT_TRUE(classic.identity().serial.empty()) << "the classic adapter has no USB serial";
  EXPECT_GE(fd.identity().portCount, 1);
  EXPECT_FALSE(fd.identity().samePath(classic.identity()));
  QUserLibUsb again;
  EXPECT_EQ(again.OpenUSBDevice(kVid, kPid, 0), QUserLibUsb::kOpenedElsewhere);
  fd.CloseUSBDevice();
  EXPECT_EQ(again.OpenUSBDevice(kVid, kPid, 0), 1) << "free again once closed";
}

} // namespace
