// Frames cross the simulated bus in the time their bits take: the frame
// layout behind that time, arbitration, the transmit queue that holds writes
// back, and whole bursts through the library at the bus's rate.
#include <wcan.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

#include "SimUsbHost.h"
#include "sim/BusTiming.h"

namespace wcansim {
namespace {

using Clock = std::chrono::steady_clock;

CanFrame frame(uint32_t id, uint8_t len, bool extended = false, bool fd = false, bool brs = false,
               bool remote = false) {
  CanFrame f;
  f.id = id;
  f.len = len;
  f.extended = extended;
  f.fd = fd;
  f.brs = brs;
  f.remote = remote;
  return f;
}

TEST(BusTiming, FrameBitsFollowTheFrameLayout) {
  struct Case {
    const char *what;
    CanFrame frame;
    unsigned nominal;
    unsigned data;
  } cases[] = {
      {"classic, empty", frame(0x100, 0), 51, 0},
      {"classic, 8 bytes", frame(0x100, 8), 123, 0},
      {"classic extended, 8 bytes", frame(0x100, 8, true), 145, 0},
      {"remote frames carry no data", frame(0x100, 8, false, false, false, true), 51, 0},
      {"CAN FD without switch runs at the nominal rate", frame(0x100, 64, false, true), 645, 0},
      {"CAN FD, 64 bytes, switched", frame(0x100, 64, false, true, true), 32, 613},
      {"CAN FD extended, 64 bytes, switched", frame(0x100, 64, true, true, true), 53, 613},
      {"CAN FD, 16 bytes: 17-bit checksum", frame(0x100, 16, false, true, true), 32, 176},
      {"CAN FD, 20 bytes: 21-bit checksum", frame(0x100, 20, false, true, true), 32, 217},
  };
  for (const Case &c : cases) {
    const FrameBits bits = frameBits(c.frame);
    EXPECT_EQ(bits.nominal, c.nominal) << c.what;
    EXPECT_EQ(bits.data, c.data) << c.what;
  }
  EXPECT_EQ(frameDuration(frame(0x100, 64, false, true, true), {1000000, 5000000}),
            std::chrono::nanoseconds(32000 + 122600));
  EXPECT_EQ(frameDuration(frame(0x100, 8), {}), std::chrono::microseconds(246))
      << "an unset rate counts as 500 kbit/s";
}

TEST(BusTiming, LowerArbitrationFieldWins) {
  struct Case {
    const char *what;
    CanFrame winner;
    CanFrame loser;
  } cases[] = {
      {"lower identifier", frame(0x100, 0), frame(0x101, 0)},
      {"data before remote", frame(0x100, 0), frame(0x100, 0, false, false, false, true)},
      {"standard before extended with the same base", frame(0x100, 0, false, false, false, true),
       frame(0x100u << 18, 0, true)},
      {"extended with a lower base before standard", frame(0x0FFu << 18 | 0x3FFFF, 0, true),
       frame(0x100, 0)},
      {"lower identifier extension", frame(0x1000, 0, true), frame(0x1001, 0, true)},
  };
  for (const Case &c : cases)
    EXPECT_LT(arbitrationKey(c.winner), arbitrationKey(c.loser)) << c.what;
}

// Receiving channel and id of every record in the data frames of a stream.
std::vector<std::pair<unsigned, unsigned>> recordsIn(const Bytes &stream) {
  std::vector<std::pair<unsigned, unsigned>> records;
  for (size_t at = 0; at + 7 <= stream.size();) {
    const unsigned count = stream[at + 6];
    at += 7;
    for (unsigned i = 0; i < count && at + 19 <= stream.size(); ++i) {
      records.emplace_back(stream[at] >> 4, stream[at + 6] | stream[at + 7] << 8);
      at += (stream[at + 1] & 0x01) != 0 ? 75 : 19;
    }
  }
  return records;
}

// 5 kbit/s: a 64-byte CAN FD frame holds the bus for 129 ms, a classic
// frame with two bytes for 13.8 ms.
constexpr uint16_t kSlowPrescaler = 1199;

class SimPacing : public SimUsbHost {
protected:
  void SetUp() override {
    SimUsbHost::SetUp();
    setPacing(true);
    adapter = plugIn(41);
    h = openFd();
    ASSERT_NE(h, nullptr);
    for (uint8_t ch : {0, 1}) {
      initChannel(h, ch, kSlowPrescaler);
      startChannel(h, ch);
    }
  }

  // Fills the transmit queue to the brim: one frame goes on the idle bus
  // (129 ms), 256 wait. Returns the frames taken.
  unsigned fillTransmitQueue() {
    const std::vector<Record> many(255, Record{0, 0x100, true});
    const std::vector<Record> two(2, Record{0, 0x100, true});
    EXPECT_EQ(send(h, kData, dataFrame(many)), 7 + 255 * 75);
    EXPECT_EQ(send(h, kData, dataFrame(two)), 7 + 2 * 75);
    return 257;
  }

  AdapterId adapter = -1;
  libusb_device_handle *h = nullptr;
};

TEST_F(SimPacing, FullTransmitQueueHoldsTheWriteBackInsteadOfDroppingFrames) {
  const auto filled = Clock::now();
  const unsigned taken = fillTransmitQueue();

  auto t0 = Clock::now();
  EXPECT_EQ(send(h, kData, dataFrame(0, 0x100, true), 30), LIBUSB_ERROR_TIMEOUT);
  EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(30)) << "waits for the whole time-out";

  EXPECT_EQ(send(h, kData, dataFrame(0, 0x100, true), 1000), 82);
  EXPECT_GE(Clock::now() - filled, std::chrono::milliseconds(129))
      << "taken once the first frame is through and the next one is on the bus";

  setPacing(false); // the rest crosses at once
  EXPECT_EQ(framesSent(adapter, 0), taken + 1);
  EXPECT_EQ(framesDelivered(adapter, 1), taken + 1) << "every frame taken reached the bus, once";
}

TEST_F(SimPacing, UnplugEndsAWriteWaitingForRoom) {
  fillTransmitQueue();
  auto writer = std::async(std::launch::async, [this] {
    return send(h, kData, dataFrame(0, 0x100, true), 0); // no time-out
  });
  EXPECT_EQ(writer.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  unplug(adapter);
  ASSERT_EQ(writer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(writer.get(), LIBUSB_ERROR_NO_DEVICE);
}

TEST_F(SimPacing, WaitingFramesGoOutByArbitrationWhenTheBusFrees) {
  // 0x300 takes the idle bus for 129 ms; 0x200 (channel 0) and 0x100
  // (channel 1) wait for it and contend.
  ASSERT_EQ(send(h, kData, dataFrame(0, 0x300, true)), 82);
  ASSERT_EQ(send(h, kData, dataFrame({{0, 0x200}, {1, 0x100}})), 7 + 2 * 19);
  Bytes stream;
  std::vector<std::pair<unsigned, unsigned>> heard;
  for (int reads = 0; heard.size() < 3 && reads < 20; ++reads) {
    const Bytes got = receive(h, kStream, 4096);
    stream.insert(stream.end(), got.begin(), got.end());
    heard = recordsIn(stream);
  }
  EXPECT_EQ(heard,
            (std::vector<std::pair<unsigned, unsigned>>{{1, 0x300}, {0, 0x100}, {1, 0x200}}));
}

// In a fresh process, with WCAN_SIM_PACE=0 before the first use: a slow
// frame reaches the other channel before its write returns. Exits with the
// number of frames delivered by then.
[[noreturn]] void sendOneSlowFrameUnpaced() {
  setenv("WCAN_SIM_PACE", "0", 1);
  const AdapterId id = plugIn(41);
  libusb_init(nullptr);
  libusb_device **list = nullptr;
  libusb_get_device_list(nullptr, &list);
  libusb_device_handle *h = nullptr;
  libusb_open(list[0], &h);
  libusb_free_device_list(list, 1);
  for (uint8_t ch : {0, 1}) {
    SimUsbHost::initChannel(h, ch, kSlowPrescaler);
    SimUsbHost::startChannel(h, ch);
  }
  SimUsbHost::send(h, kData, SimUsbHost::dataFrame(0, 0x100, true));
  std::exit(static_cast<int>(framesDelivered(id, 1)));
}

TEST(SimPaceEnvironment, PaceZeroCarriesFramesAtOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(sendOneSlowFrameUnpaced(), ::testing::ExitedWithCode(1), "");
}

// Under ThreadSanitizer the host side may not keep the adapter's transmit
// queue filled at the bus rate; the bus must still never run faster.
#if defined(__SANITIZE_THREAD__)
constexpr bool kHostKeepsUp = false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kHostKeepsUp = false;
#else
constexpr bool kHostKeepsUp = true;
#endif
#else
constexpr bool kHostKeepsUp = true;
#endif

// Through the library: a burst several times the adapter's transmit queue
// (and, for the classic adapter, its 1,024-transfer receive endpoint)
// arrives whole, its device time stamps spaced by the frame time.
struct Burst {
  const char *name;
  unsigned type;
  unsigned count;
  uint8_t timing0, timing1;       // classic adapter
  unsigned nominalRate, dataRate; // CAN FD adapter
  double frameUs;                 // 8-byte classic frame, 64-byte switched CAN FD frame
};

class PacedTraffic : public ::testing::TestWithParam<Burst> {
protected:
  void SetUp() override {
    reset();
    pacedBefore_ = pacing();
    setPacing(true);
    plugIn(GetParam().type);
    ASSERT_EQ(WCAN_OpenDevice(GetParam().type, 0), 1);
  }
  void TearDown() override {
    WCAN_CloseDevice(GetParam().type, 0);
    reset();
    setPacing(pacedBefore_);
  }
  bool pacedBefore_ = true;
};

struct Arrival {
  unsigned count = 0;
  unsigned outOfOrder = 0;
  unsigned firstStamp = 0;
  unsigned lastStamp = 0;
};

template <class Obj, class Receive> Arrival receiveAll(unsigned expected, Receive receive) {
  Arrival a;
  std::vector<Obj> buf(256);
  for (int idle = 0; a.count < expected && idle < 20;) {
    const int n = receive(buf.data(), static_cast<unsigned>(buf.size()), 100);
    idle = n > 0 ? 0 : idle + 1;
    for (int i = 0; i < n; ++i, ++a.count) {
      if (buf[i].data[0] != static_cast<uint8_t>(a.count) ||
          buf[i].data[1] != static_cast<uint8_t>(a.count >> 8))
        ++a.outOfOrder;
      a.firstStamp = a.count == 0 ? buf[i].timeStamp : a.firstStamp;
      a.lastStamp = buf[i].timeStamp;
    }
  }
  return a;
}

TEST_P(PacedTraffic, BurstLargerThanTheDeviceQueuesArrivesWholeAtTheBusRate) {
  const Burst &b = GetParam();
  Arrival arrival;
  Clock::time_point t0;
  if (b.type == 4) {
    _WCAN_INIT_CONFIG cfg{};
    cfg.timing0 = b.timing0;
    cfg.timing1 = b.timing1;
    for (unsigned ch : {0u, 1u})
      ASSERT_TRUE(WCAN_InitCAN(b.type, 0, ch, &cfg) && WCAN_Start(b.type, 0, ch));
    std::vector<_WCAN_CAN_OBJ> frames(b.count);
    for (unsigned i = 0; i < b.count; ++i)
      frames[i] = {0x123, 0, 0, 0, 0, 0, 8, {}, {uint8_t(i), uint8_t(i >> 8), 2, 3, 4, 5, 6, 7}};
    t0 = Clock::now();
    ASSERT_EQ(WCAN_Transmit(b.type, 0, 0, frames.data(), b.count), static_cast<int>(b.count));
    arrival = receiveAll<_WCAN_CAN_OBJ>(b.count, [&](_WCAN_CAN_OBJ *out, unsigned n, int ms) {
      return WCAN_Receive(b.type, 0, 1, out, n, ms);
    });
  } else {
    _WCAN_INITFD_CONFIG cfg{};
    cfg.abitRate = b.nominalRate;
    cfg.dbitRate = b.dataRate;
    cfg.fdEnable = 1;
    for (unsigned ch : {0u, 1u})
      ASSERT_TRUE(WCAN_InitCANFD(b.type, 0, ch, &cfg) && WCAN_Start(b.type, 0, ch));
    std::vector<_WCAN_CANFD_OBJ> frames(b.count);
    for (unsigned i = 0; i < b.count; ++i) {
      frames[i] = {0x123, 0, WCAN_FDFLAG_FDF | WCAN_FDFLAG_BRS, 0, 0, 0, 64, {}, {}};
      frames[i].data[0] = static_cast<uint8_t>(i);
      frames[i].data[1] = static_cast<uint8_t>(i >> 8);
    }
    t0 = Clock::now();
    ASSERT_EQ(WCAN_TransmitFD(b.type, 0, 0, frames.data(), b.count), static_cast<int>(b.count));
    arrival = receiveAll<_WCAN_CANFD_OBJ>(b.count, [&](_WCAN_CANFD_OBJ *out, unsigned n, int ms) {
      return WCAN_ReceiveFD(b.type, 0, 1, out, n, ms);
    });
  }
  const auto elapsed = Clock::now() - t0;
  EXPECT_EQ(arrival.count, b.count);
  EXPECT_EQ(arrival.outOfOrder, 0u);
  const double stampedUs = (arrival.lastStamp - arrival.firstStamp) / double(b.count - 1);
  EXPECT_GE(stampedUs, b.frameUs * 0.999) << "device time between frames";
  if (kHostKeepsUp) {
    EXPECT_LE(stampedUs, b.frameUs * 1.03) << "device time between frames";
  }
  const std::chrono::duration<double, std::micro> busTime((b.count - 1) * b.frameUs);
  EXPECT_GE(elapsed, busTime) << "never faster than the bus";
}

INSTANTIATE_TEST_SUITE_P(Families, PacedTraffic,
                         ::testing::Values(Burst{"Classic", 4, 1100, 0x01, 0x1C, 0, 0, 492.0},
                                           Burst{"CanFd", 41, 1000, 0, 0, 500000, 2000000, 370.5}),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
} // namespace wcansim
