// SPDX-License-Identifier: MIT
// The receive path of both streaming families as a host meets it: the
// receive event follows the queue, wakes a host blocked in poll and wakes it
// again when the adapter closes; a close is answered during a burst as on an
// idle bus; an idle adapter's library threads do not wake.
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include "sim/wcan_sim.h"
#include "support/StartedChannels.h"
#include "wcan.h"

namespace {

using namespace std::chrono_literals;

struct Family {
  const char *name;
  unsigned type;
};

class StreamingFamily : public ::testing::TestWithParam<Family> {
protected:
  void SetUp() override {
    wcansim::setPacing(false);
    wcansim::reset();
    adapter_ = wcansim::plugIn(type());
    ASSERT_EQ(WCAN_OpenDevice(type(), 0), 1);
    ASSERT_TRUE(wcantest::startChannels(type(), 0));
  }
  void TearDown() override {
    WCAN_CloseDevice(type(), 0);
    wcansim::reset();
  }
  unsigned type() const { return GetParam().type; }
  // A frame from a foreign node on the bus of channel 1.
  void frameOnTheBus() const {
    wcansim::CanFrame frame;
    frame.id = 0x123;
    frame.len = 8;
    wcansim::injectFrame(adapter_, 1, frame);
  }
  int takeAll() const {
    _WCAN_CAN_OBJ frames[16];
    return WCAN_Receive(type(), 0, 1, frames, 16, 0);
  }

  wcansim::AdapterId adapter_ = -1;
};

// Whether `fd` became readable (or went away) within `ms`.
bool woken(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1 && (p.revents & (POLLIN | POLLNVAL)) != 0;
}

TEST_P(StreamingFamily, ReceiveEventFollowsTheQueueAndTheClose) {
  EXPECT_EQ(WCAN_GetReceiveEvent(type(), 1, 0), -1);
  EXPECT_EQ(WCAN_GetLastError(), 7) << "not opened";
  EXPECT_EQ(WCAN_GetReceiveEvent(type(), 0, 9), -1);
  EXPECT_EQ(WCAN_GetLastError(), 8) << "no such channel";

  const int event = WCAN_GetReceiveEvent(type(), 0, 1);
  ASSERT_GE(event, 0);
  EXPECT_EQ(WCAN_GetReceiveEvent(type(), 0, 1), event) << "one event per channel";
  EXPECT_FALSE(woken(event, 0)) << "nothing queued";

  std::thread sender([&] {
    std::this_thread::sleep_for(20ms);
    frameOnTheBus();
  });
  EXPECT_TRUE(woken(event, 5000)) << "a host blocked in poll wakes with the frame";
  sender.join();
  EXPECT_EQ(takeAll(), 1);
  EXPECT_FALSE(woken(event, 0)) << "drained";

  std::thread closer([&] {
    std::this_thread::sleep_for(20ms);
    WCAN_CloseDevice(type(), 0);
  });
  EXPECT_TRUE(woken(event, 5000)) << "the close wakes the host";
  closer.join();
  EXPECT_EQ(takeAll(), 0);
  EXPECT_EQ(WCAN_GetLastError(), 7);
}

TEST_P(StreamingFamily, CloseIsAnsweredDuringABurst) {
  std::atomic<bool> sending{true};
  std::thread burst([&] {
    while (sending.load()) {
      frameOnTheBus();
    }
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(WCAN_CloseDevice(type(), 0), 1);
  sending = false;
  burst.join();
  EXPECT_EQ(takeAll(), 0);
}

// Context switches of each of the library's threads, by thread id.
std::map<std::string, unsigned long long> libraryThreadSwitches() {
  std::map<std::string, unsigned long long> switches;
  DIR *dir = opendir("/proc/self/task");
  while (dir != nullptr) {
    const dirent *entry = readdir(dir);
    if (entry == nullptr) {
      break;
    }
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    char name[32] = {};
    FILE *comm = std::fopen((task + "/comm").c_str(), "r");
    if (comm == nullptr) {
      continue;
    }
    const bool ours =
        std::fgets(name, sizeof name, comm) != nullptr && std::strncmp(name, "wcan ", 5) == 0;
    std::fclose(comm);
    FILE *status = ours ? std::fopen((task + "/status").c_str(), "r") : nullptr;
    if (status == nullptr) {
      continue;
    }
    char line[128];
    while (std::fgets(line, sizeof line, status) != nullptr) {
      unsigned long long n = 0;
      if (std::sscanf(line, "voluntary_ctxt_switches: %llu", &n) == 1 ||
          std::sscanf(line, "nonvoluntary_ctxt_switches: %llu", &n) == 1) {
        switches[entry->d_name] += n;
      }
    }
    std::fclose(status);
  }
  if (dir != nullptr) {
    closedir(dir);
  }
  return switches;
}

TEST_P(StreamingFamily, IdleAdapterThreadsDoNotWake) {
  std::this_thread::sleep_for(100ms);
  const auto before = libraryThreadSwitches();
  EXPECT_EQ(before.size(), 2u) << "the adapter's supervision and the shared event thread";
  std::this_thread::sleep_for(1500ms);
  EXPECT_EQ(libraryThreadSwitches(), before);
}

INSTANTIATE_TEST_SUITE_P(Each, StreamingFamily,
                         ::testing::Values(Family{"CanFd", 41}, Family{"Classic", 4}),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
