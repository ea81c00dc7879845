// SPDX-License-Identifier: MIT
// Frames cross the simulated bus in the time their bits take, and bursts
// several times the adapter's transmit queue go through the library at the
// bus's rate without a frame lost.
#include <wcan.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>
#include <type_traits>

#include "SimUsbHost.h"
#include "sim/BusTiming.h"

namespace wcansim {
namespace {

using Clock = std::chrono::steady_clock;

CanFrame frame(uint32_t id, uint8_t len, bool extended, bool fd = false, bool brs = false,
               bool remote = false) {
  return CanFrame{id, extended, remote, fd, brs, len, {}};
}

TEST(BusTiming, FramesTakeTheirBitsAtTheChannelRates) {
  // 126 bits with their stuff bits (the count has its own tests with the
  // statistics); an unset rate counts as 500 kbit/s.
  EXPECT_EQ(frameDuration(frame(0x100, 8, false), {}), std::chrono::microseconds(252));
  // 32 bits at 500 kbit/s, 651 at 2 Mbit/s.
  EXPECT_EQ(frameDuration(frame(0x100, 64, false, true, true), {500000, 2000000}),
            std::chrono::nanoseconds(64000 + 325500));
}

// Under the sanitizers a loaded machine can starve the host long enough for
// the adapter's transmit queue to run dry; the bus must still never run
// faster than its bit rate.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kHostKeepsUp = false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
constexpr bool kHostKeepsUp = false;
#else
constexpr bool kHostKeepsUp = true;
#endif
#else
constexpr bool kHostKeepsUp = true;
#endif

// Sends `count` copies of `proto`, numbered in their first two data bytes,
// on channel 0 and checks what channel 1 receives: all of them, in order,
// device time stamps as far apart as the frames' bits take at `rates` on
// average, never sooner than the bus allows.
template <class Obj, class Send, class Receive>
void expectBurstAtBusRate(unsigned count, BitRates rates, Obj proto, Send send, Receive receive) {
  std::vector<Obj> frames(count, proto);
  std::chrono::nanoseconds onBus{};
  for (unsigned i = 0; i < count; ++i) {
    frames[i].data[0] = static_cast<uint8_t>(i);
    frames[i].data[1] = static_cast<uint8_t>(i >> 8);
    constexpr bool fd = std::is_same_v<Obj, _WCAN_CANFD_OBJ>;
    CanFrame f = frame(proto.id, proto.dataLen, false, fd, fd);
    std::copy_n(frames[i].data, proto.dataLen, f.data);
    if (i + 1 < count)
      onBus += frameDuration(f, rates);
  }
  const double frameUs = std::chrono::duration<double, std::micro>(onBus).count() / (count - 1);
  const auto t0 = Clock::now();
  ASSERT_EQ(send(frames.data(), count), static_cast<int>(count));
  std::vector<Obj> got(count);
  unsigned n = 0;
  for (int idle = 0; n < count && idle < 20;) {
    const int k = receive(got.data() + n, count - n, 100);
    idle = k > 0 ? 0 : idle + 1;
    n += static_cast<unsigned>(std::max(k, 0));
  }
  const std::chrono::duration<double, std::micro> busTime((count - 1) * frameUs);
  EXPECT_GE(Clock::now() - t0, busTime) << "never sooner than the bus allows";
  ASSERT_EQ(n, count);
  for (unsigned i = 0; i < count; ++i)
    ASSERT_EQ(got[i].data[0] | got[i].data[1] << 8, static_cast<int>(i & 0xFFFF)) << "in order";
  const double stampedUs = (got[count - 1].timeStamp - got[0].timeStamp) / double(count - 1);
  EXPECT_GE(stampedUs, frameUs * 0.999);
  if (kHostKeepsUp) {
    EXPECT_LE(stampedUs, frameUs * 1.03);
  }
}

// Through the library, bursts several times the adapter's transmit queue
// (and, for the classic adapter, its 1,024-transfer receive endpoint).
class PacedTraffic : public SimUsbHost {
protected:
  void open(unsigned type) {
    setPacing(true);
    plugIn(type);
    type_ = type;
    ASSERT_EQ(WCAN_OpenDevice(type, 0), 1);
  }
  void TearDown() override {
    WCAN_CloseDevice(type_, 0);
    SimUsbHost::TearDown();
  }
  unsigned type_ = 0;
};

TEST_F(PacedTraffic, ClassicBurstArrivesWholeAtTheBusRate) {
  open(4);
  _WCAN_INIT_CONFIG cfg{0, 0, 0, 0, 0x01, 0x1C, 0}; // 250 kbit/s
  for (unsigned ch : {0u, 1u})
    ASSERT_TRUE(WCAN_InitCAN(4, 0, ch, &cfg) && WCAN_Start(4, 0, ch));
  expectBurstAtBusRate(
      1100, {250000, 0}, _WCAN_CAN_OBJ{0x123, 0, 0, 0, 0, 0, 8, {}, {}},
      [](_WCAN_CAN_OBJ *f, unsigned n) { return WCAN_Transmit(4, 0, 0, f, n); },
      [](_WCAN_CAN_OBJ *f, unsigned n, int ms) { return WCAN_Receive(4, 0, 1, f, n, ms); });
}

TEST_F(PacedTraffic, CanFdBurstArrivesWholeAtTheBusRate) {
  open(41);
  _WCAN_INITFD_CONFIG cfg{};
  cfg.abitRate = 500000;
  cfg.dbitRate = 2000000;
  cfg.fdEnable = 1;
  for (unsigned ch : {0u, 1u})
    ASSERT_TRUE(WCAN_InitCANFD(41, 0, ch, &cfg) && WCAN_Start(41, 0, ch));
  expectBurstAtBusRate(
      1000, {500000, 2000000},
      _WCAN_CANFD_OBJ{0x123, 0, WCAN_FDFLAG_FDF | WCAN_FDFLAG_BRS, 0, 0, 0, 64, {}, {}},
      [](_WCAN_CANFD_OBJ *f, unsigned n) { return WCAN_TransmitFD(41, 0, 0, f, n); },
      [](_WCAN_CANFD_OBJ *f, unsigned n, int ms) { return WCAN_ReceiveFD(41, 0, 1, f, n, ms); });
}

} // namespace
} // namespace wcansim
