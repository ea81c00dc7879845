// SPDX-License-Identifier: MIT
// Several host threads transmitting and receiving at once on one adapter of
// each family (built under ThreadSanitizer in CI). Every frame a sender got
// through must reach the receivers exactly once, and each receiver must see
// every sender's frames in the order they were sent.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "sim/wcan_sim.h"
#include "wcan.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kSenders = 3;
constexpr unsigned kReceivers = 2;
constexpr uint32_t kFramesPerSender = 300;

// Frame payload: sender number in byte 0, sequence number in bytes 1..2.
struct Tag {
  uint8_t sender;
  uint32_t seq;
};

template <typename Obj> void tag(Obj &f, uint8_t len, uint8_t sender, uint32_t seq) {
  f.id = 0x100 + sender;
  f.dataLen = len;
  f.data[0] = sender;
  f.data[1] = static_cast<uint8_t>(seq);
  f.data[2] = static_cast<uint8_t>(seq >> 8);
}

template <typename Obj> std::vector<Tag> tagsOf(const Obj *f, int n) {
  std::vector<Tag> tags;
  for (int i = 0; i < n; ++i)
    tags.push_back({f[i].data[0], static_cast<uint32_t>(f[i].data[1] | f[i].data[2] << 8)});
  return tags;
}

// The family-specific calls, so one scenario serves both frame paths.
struct Family {
  unsigned type;
  bool fd;

  int init(unsigned channel) const {
    if (fd) {
      _WCAN_INITFD_CONFIG c{};
      c.abitRate = 500000;
      c.dbitRate = 2000000;
      c.fdEnable = 1;
      return WCAN_InitCANFD(type, 0, channel, &c);
    }
    _WCAN_INIT_CONFIG c{};
    c.timing1 = 0x1C;
    return WCAN_InitCAN(type, 0, channel, &c);
  }
  // Sends a batch of `count` tagged frames; returns how many went out.
  int send(unsigned channel, uint8_t sender, uint32_t firstSeq, unsigned count) const {
    if (fd) {
      _WCAN_CANFD_OBJ frames[8] = {};
      for (unsigned i = 0; i < count; ++i) {
        tag(frames[i], 12, sender, firstSeq + i);
        frames[i].fdFlags = WCAN_FDFLAG_FDF;
      }
      return WCAN_TransmitFD(type, 0, channel, frames, count);
    }
    _WCAN_CAN_OBJ frames[8] = {};
    for (unsigned i = 0; i < count; ++i)
      tag(frames[i], 8, sender, firstSeq + i);
    return WCAN_Transmit(type, 0, channel, frames, count);
  }
  std::vector<Tag> receive(unsigned channel, int waitMs) const {
    if (fd) {
      _WCAN_CANFD_OBJ frames[32];
      return tagsOf(frames, WCAN_ReceiveFD(type, 0, channel, frames, 32, waitMs));
    }
    _WCAN_CAN_OBJ frames[32];
    return tagsOf(frames, WCAN_Receive(type, 0, channel, frames, 32, waitMs));
  }
};

class ConcurrentTraffic : public ::testing::TestWithParam<Family> {
  void TearDown() override {
    WCAN_CloseDevice(GetParam().type, 0);
    wcansim::reset();
  }
};

TEST_P(ConcurrentTraffic, EveryFrameArrivesOnceAndInOrderPerSender) {
  const Family family = GetParam();
  wcansim::reset();
  ASSERT_GE(wcansim::plugIn(family.type), 0);
  ASSERT_EQ(WCAN_OpenDevice(family.type, 0), 1);
  ASSERT_TRUE(family.init(0) == 1 && family.init(1) == 1);
  std::atomic<uint32_t> sent[kSenders] = {};
  std::atomic<unsigned> sendersDone{0};
  std::vector<std::vector<Tag>> seen(kReceivers);

  std::vector<std::thread> threads;
  for (unsigned s = 0; s < kSenders; ++s) {
    threads.emplace_back([&, s] {
      uint32_t seq = 0;
      const auto deadline = Clock::now() + std::chrono::seconds(20);
      while (seq < kFramesPerSender && Clock::now() < deadline) {
        const unsigned count = std::min<uint32_t>(1 + seq % 4, kFramesPerSender - seq);
        const int n = family.send(0, static_cast<uint8_t>(s), seq, count);
        if (n > 0)
          seq += static_cast<uint32_t>(n);
        else
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      sent[s] = seq;
      ++sendersDone;
    });
  }
  for (unsigned r = 0; r < kReceivers; ++r) {
    threads.emplace_back([&, r] {
      const auto deadline = Clock::now() + std::chrono::seconds(25);
      // Stop once every sender is done and nothing came for a while.
      for (size_t quiet = 0; Clock::now() < deadline && quiet < 20;) {
        const std::vector<Tag> tags = family.receive(1, 10);
        seen[r].insert(seen[r].end(), tags.begin(), tags.end());
        quiet = sendersDone == kSenders && tags.empty() ? quiet + 1 : 0;
      }
    });
  }
  // A third kind of caller: counting and reading the queue of the sending
  // channel while frames flow.
  threads.emplace_back([&] {
    while (sendersDone < kSenders) {
      EXPECT_GE(WCAN_GetReceiveNum(family.type, 0, 1, family.fd ? 1 : 0), 0);
      (void)family.receive(0, 0);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  for (std::thread &t : threads)
    t.join();

  std::vector<std::vector<int>> hits(kSenders);
  for (unsigned s = 0; s < kSenders; ++s) {
    EXPECT_EQ(sent[s].load(), kFramesPerSender) << "sender " << s << " was refused too often";
    hits[s].assign(sent[s], 0);
  }
  for (const std::vector<Tag> &tags : seen) {
    std::vector<int64_t> last(kSenders, -1);
    for (const Tag &t : tags) {
      ASSERT_LT(t.sender, kSenders);
      ASSERT_LT(t.seq, sent[t.sender].load());
      EXPECT_GT(static_cast<int64_t>(t.seq), last[t.sender]) << "out of order";
      last[t.sender] = t.seq;
      ++hits[t.sender][t.seq];
    }
  }
  for (unsigned s = 0; s < kSenders; ++s)
    EXPECT_EQ(hits[s], std::vector<int>(sent[s], 1)) << "sender " << s << ": lost or duplicated";
}

INSTANTIATE_TEST_SUITE_P(Families, ConcurrentTraffic,
                         ::testing::Values(Family{41, true}, Family{4, false}),
                         [](const ::testing::TestParamInfo<Family> &info) {
                           return std::string(info.param.fd ? "CanFd" : "Classic");
                         });

// The recorder has no thread of its own; callers on several threads may take
// each other's replies (kept), but must never corrupt the driver.
TEST(ConcurrentRecorder, SettingsReadsFromSeveralThreads) {
  wcansim::reset();
  ASSERT_GE(wcansim::plugIn(61), 0);
  ASSERT_EQ(WCAN_OpenDevice(61, 0), 1);
  std::atomic<int> succeeded{0};
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        _WCAN_RECORD_CONFIG config{};
        const int r = WCAN_RecordSettingGet(61, 0, t % 2, &config);
        EXPECT_TRUE(r == 0 || r == 1);
        succeeded += r;
      }
    });
  }
  for (std::thread &t : threads)
    t.join();
  EXPECT_GT(succeeded.load(), 0);
  EXPECT_EQ(WCAN_CloseDevice(61, 0), 1);
  wcansim::reset();
}

} // namespace
