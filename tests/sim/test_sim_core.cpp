// SPDX-License-Identifier: MIT
// The libusb simulation layer and the virtual bus, seen through libusb calls.
#include <chrono>
#include <future>
#include <thread>

#include "SimUsbHost.h"
#include "sim/ModelUsbCanFd.h"

namespace wcansim {
namespace {

using SimCore = SimUsbHost;

TEST_F(SimCore, EnumeratesAdaptersWithEqualIdsInPlugOrder) {
  for (unsigned type : {41u, 64u, 42u, 43u})
    plugIn(type);
  EXPECT_EQ(plugIn(99), -1);
  const auto fd = find(ctx, 0x3068, 0x0009);
  ASSERT_EQ(fd.size(), 3u);
  EXPECT_EQ(find(nullptr, 0x3068, 0x0009), fd) << "the NULL context sees the same";
  EXPECT_EQ(find(ctx, 0x0471, 0x3014).size(), 1u);

  // Each adapter answers as itself: the third one's serial number differs.
  libusb_device_handle *third = openFd(2);
  ASSERT_NE(third, nullptr);
  unsigned char serial[256];
  const int n = libusb_control_transfer(third, 0x80, 6, 0x0303, 0, serial, sizeof serial, 1000);
  ASSERT_GT(n, 2);
  EXPECT_EQ(serial[0], n);
  EXPECT_EQ(serial[1], LIBUSB_DT_STRING);
  unsigned char first[256];
  EXPECT_EQ(libusb_control_transfer(openFd(0), 0x80, 6, 0x0303, 0, first, sizeof first, 1000), n);
  EXPECT_NE(0, memcmp(first, serial, static_cast<size_t>(n)));
  EXPECT_EQ(openFd(3), nullptr);
}

TEST_F(SimCore, ReadTimesOutWithoutSpinning) {
  plugIn(41);
  libusb_device_handle *h = openFd();
  ASSERT_NE(h, nullptr);
  unsigned char buf[64];
  int n = -1;
  const auto t0 = std::chrono::steady_clock::now();
  const double cpu0 = threadCpuMs();
  EXPECT_EQ(libusb_bulk_transfer(h, kStream, buf, sizeof buf, &n, 100), LIBUSB_ERROR_TIMEOUT);
  const double cpuMs = threadCpuMs() - cpu0;
  EXPECT_EQ(n, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(100));
  EXPECT_LT(cpuMs, 50.0) << "the reader must sleep, not poll";
}

TEST_F(SimCore, UnplugWakesABlockedReaderAndReplugIsANewDevice) {
  const AdapterId id = plugIn(41);
  libusb_device_handle *h = openFd();
  ASSERT_NE(h, nullptr);
  startChannel(h, 0);
  auto reader = std::async(std::launch::async, [h] {
    unsigned char buf[64];
    int n = -1;
    return libusb_bulk_transfer(h, kStream, buf, sizeof buf, &n, 0); // no time-out
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  unplug(id);
  ASSERT_EQ(reader.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(reader.get(), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_EQ(send(h, kCmd, {0x55, 0x01, 0x01, 0x01}), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_TRUE(find(ctx, 0x3068, 0x0009).empty());
  EXPECT_EQ(openFd(), nullptr);

  replug(id);
  EXPECT_EQ(send(h, kCmd, {0x55, 0x01, 0x01, 0x01}), LIBUSB_ERROR_NO_DEVICE)
      << "a handle of the unplugged device stays dead";
  EXPECT_EQ(libusb_reset_device(h), LIBUSB_ERROR_NO_DEVICE);
  libusb_device_handle *again = openFd();
  ASSERT_NE(again, nullptr);
  EXPECT_FALSE(model(id)->channelStarted(0)) << "replugged in its reset state";
  EXPECT_EQ(command(again, {0x55, 0x01, 0x01, 0x01}).at(1), 0x01);
}

TEST_F(SimCore, UsbResetStopsTheChannels) {
  const AdapterId id = plugIn(41);
  libusb_device_handle *h = openFd();
  ASSERT_NE(h, nullptr);
  startChannel(h, 1);
  EXPECT_TRUE(model(id)->channelStarted(1));
  EXPECT_EQ(libusb_reset_device(h), 0);
  EXPECT_FALSE(model(id)->channelStarted(1));
  EXPECT_EQ(libusb_clear_halt(h, kStream), 0);
}

TEST_F(SimCore, ReplyFaultsTamperWithTheNextReplies) {
  struct Case {
    ReplyFault fault;
    uint8_t value;
    Bytes expected;
  } cases[] = {
      {ReplyFault::Short, 2, {0x55, 0x01}},
      {ReplyFault::Foreign, 0x13, {0x55, 0x13, 0x01, 0x00, 0x01, 0x05, 0, 0}},
      {ReplyFault::Status, 0x09, {0x55, 0x01, 0x01, 0x09, 0x01, 0x05, 0, 0}},
  };
  const AdapterId id = plugIn(41);
  libusb_device_handle *h = openFd();
  ASSERT_NE(h, nullptr);
  const Bytes version{0x55, 0x01, 0x01, 0x01};
  const Bytes clean = command(h, version);
  for (const Case &c : cases) {
    injectReplyFault(id, c.fault, c.value, 2);
    EXPECT_EQ(command(h, version), c.expected);
    EXPECT_EQ(command(h, version), c.expected);
    EXPECT_EQ(command(h, version), clean) << "only `count` replies are touched";
  }
}

TEST_F(SimCore, PacketAndStreamEndpointsServeReadsByTheirShape) {
  const AdapterId id = plugIn(41);
  libusb_device_handle *h = openFd();
  ASSERT_NE(h, nullptr);
  const Bytes ten{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  // Packet: one transfer per read, cut to the read length.
  pushIn(id, kReply, ten);
  pushIn(id, kReply, {0xEE});
  EXPECT_EQ(receive(h, kReply, 4), (Bytes{0, 1, 2, 3}));
  EXPECT_EQ(receive(h, kReply, 64), Bytes{0xEE});
  // Stream: reads run across transfers.
  pushIn(id, kStream, ten);
  pushIn(id, kStream, ten);
  EXPECT_EQ(receive(h, kStream, 15), (Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3, 4}));
  EXPECT_EQ(receive(h, kStream, 15), (Bytes{5, 6, 7, 8, 9}));
}

// Three adapters: 0 and 1 of type 41 (channels 0-1 cabled on each), 2 of 64.
TEST_F(SimCore, BusDeliversOnlyToStartedCabledChannels) {
  const AdapterId a = plugIn(41);
  const AdapterId b = plugIn(41);
  libusb_device_handle *ha = openFd(0);
  libusb_device_handle *hb = openFd(1);
  ASSERT_TRUE(ha && hb);
  startChannel(ha, 0);
  startChannel(hb, 0);

  // Channel 1 of adapter a is not started: the frame goes nowhere.
  ASSERT_EQ(send(ha, kData, dataFrame(0, 0x21)), 26);
  EXPECT_EQ(framesSent(a, 0), 1u);
  EXPECT_EQ(framesDelivered(a, 1), 0u);

  startChannel(ha, 1);
  ASSERT_EQ(send(ha, kData, dataFrame(0, 0x22)), 26);
  Bytes got = receive(ha, kStream, 4096);
  ASSERT_EQ(got.size(), 26u);
  EXPECT_EQ(got[7], 0x10) << "arrives on channel 1";
  EXPECT_EQ(got[13], 0x22);
  EXPECT_EQ(framesDelivered(b, 0), 0u) << "adapters are not cabled to each other";

  connect(a, 1, b, 0);
  ASSERT_EQ(send(ha, kData, dataFrame(0, 0x23)), 26);
  EXPECT_EQ(framesDelivered(b, 0), 0u) << "links are not transitive";
  ASSERT_EQ(send(ha, kData, dataFrame(1, 0x24)), 26);
  EXPECT_EQ(framesDelivered(a, 0), 1u);
  EXPECT_EQ(framesDelivered(b, 0), 1u);
  got = receive(hb, kStream, 4096);
  ASSERT_EQ(got.size(), 26u);
  EXPECT_EQ(got[13], 0x24);

  disconnect(a, 1, b, 0);
  makeListenOnly(ha, 1);
  ASSERT_EQ(send(ha, kData, dataFrame(1, 0x25)), 26);
  EXPECT_EQ(framesSent(a, 1), 1u) << "a listen-only channel does not send";

  injectFrame(b, 1, CanFrame{0x26});
  EXPECT_EQ(framesDelivered(b, 0), 2u) << "a foreign node reaches the cabled channel";
}

TEST_F(SimCore, DeviceTimeStampsRiseAndRestartOnReplug) {
  const AdapterId id = plugIn(41);
  libusb_device_handle *h = openFd();
  ASSERT_NE(h, nullptr);
  startChannel(h, 0);
  auto stampOf = [&](libusb_device_handle *dev) {
    injectFrame(id, 0, CanFrame{0x1});
    const Bytes f = receive(dev, kStream, 4096);
    EXPECT_EQ(f.size(), 26u);
    return f.size() < 13 ? 0u
                         : f[9] | f[10] << 8 | f[11] << 16 | static_cast<uint32_t>(f[12]) << 24;
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  const uint32_t before = stampOf(h);
  EXPECT_GE(before, 30000u);
  unplug(id);
  replug(id);
  libusb_device_handle *again = openFd();
  ASSERT_NE(again, nullptr);
  startChannel(again, 0);
  EXPECT_LT(stampOf(again), before);
}

TEST_F(SimCore, ControlApiForDlopenUsers) {
  wcan_sim_reset();
  const int id = wcan_sim_plug_in(65);
  EXPECT_EQ(find(ctx, 0x0471, 0x2014).size(), 1u);
  wcan_sim_unplug(id);
  EXPECT_FALSE(isPlugged(id));
  wcan_sim_replug(id);
  EXPECT_TRUE(isPlugged(id));
  EXPECT_NE(libusb_strerror(LIBUSB_ERROR_NO_DEVICE), nullptr);
}

} // namespace
} // namespace wcansim

namespace wcansim {
namespace {

// In a fresh process (the environment is read once, at the first init):
// plugs in what WCAN_SIM lists, opens the first adapter, exchanges one
// command and exits with the number of adapters found.
[[noreturn]] void plugFromEnvironmentAndTrace() {
  reset();
  setenv("WCAN_SIM", "41,64,x,99,41", 1);
  setenv("WCAN_SIM_PRIVATE", "1", 1);
  setenv("WCAN_SIM_TRACE", "1", 1);
  libusb_init(nullptr);
  libusb_device **list = nullptr;
  const ssize_t n = libusb_get_device_list(nullptr, &list);
  libusb_device_handle *h = nullptr;
  libusb_open(list[0], &h);
  libusb_free_device_list(list, 1);
  unsigned char cmd[] = {0x55, 0x01, 0x01, 0x01};
  int done = 0;
  libusb_interrupt_transfer(h, 0x01, cmd, sizeof cmd, &done, 100);
  libusb_interrupt_transfer(h, 0x81, cmd, sizeof cmd, &done, 100);
  libusb_close(h);
  std::exit(static_cast<int>(n));
}

TEST(SimEnvironment, PlugsInListedAdaptersAndTracesTransfers) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(plugFromEnvironmentAndTrace(), ::testing::ExitedWithCode(3),
              "OUT ep01: 55 01 01 01\n.*IN  ep81: 55 01 01 00");
}

} // namespace
} // namespace wcansim
