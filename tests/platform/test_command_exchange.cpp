// SPDX-License-Identifier: MIT
// The shared command exchange against a simulated adapter that never answers
// by itself: every reply it reads is one the test queued. The families' tests
// cover their own rules end to end; these cover what no family call reaches
// (a written-once exchange that awaits its answer, reads cut to the budget)
// and the exchange's own bookkeeping.
#include "platform/CommandExchange.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "wcan_sim.h"

namespace {

using namespace std::chrono_literals;
using wcansim::Bytes;
using Kind = ExchangeOutcome::Kind;
using Resend = ExchangeRules::Resend;
using Answer = ExchangeRules::Answer;

constexpr unsigned kVid = 0x3068, kPid = 0x0009; // CAN FD adapter, type 41
constexpr uint8_t kOut = 0x01, kIn = 0x81;
constexpr int kRoom = 64;

const Bytes kEcho = {0x55, 0x0E, 0x00};
const Bytes kForeign = {0x55, 0x0F, 0x00};

ExchangeRules rules(Resend resend, Answer answer, unsigned readTimeoutMs = 100) {
  return {{kOut, UsbTransfer::Interrupt, 100},
          {kIn, UsbTransfer::Interrupt, readTimeoutMs},
          resend,
          answer};
}

class Exchange : public ::testing::Test {
protected:
  void SetUp() override {
    wcansim::reset();
    adapter = wcansim::plugIn(41);
    ASSERT_EQ(usb.OpenUSBDevice(kVid, kPid, 0), 1);
    wcansim::setSilent(adapter, true);
  }
  void TearDown() override {
    usb.CloseUSBDevice();
    wcansim::reset();
  }

  ExchangeOutcome run(const ExchangeRules &with, uint32_t budgetMs, QUserLibUsb *over) {
    uint8_t command[] = {0x55, 0x0E, 0x01};
    replyLength = kRoom;
    return exchange.run(over, with, CommandExchange::Access::Command, command, sizeof command,
                        reply, replyLength, budgetMs);
  }
  size_t writes() const { return wcansim::written(adapter, kOut).size(); }

  wcansim::AdapterId adapter = -1;
  QUserLibUsb usb;
  CommandExchange exchange;
  uint8_t reply[kRoom] = {};
  int replyLength = kRoom;
};

TEST_F(Exchange, RepliesQueuedAheadDecideTheOutcome) {
  struct Case {
    const char *what;
    ExchangeRules with;
    std::vector<Bytes> replies;
    uint32_t budgetMs;
    Kind kind;
    size_t writes;
    int replyLength; // kRoom: left as it was
  };
  const Case cases[] = {
      {"a foreign reply makes a resending exchange ask again",
       rules(Resend::EveryAttempt, Answer::Echo),
       {kForeign, kEcho},
       500,
       Kind::Answered,
       2,
       3},
      {"a short echo answers nothing",
       rules(Resend::EveryAttempt, Answer::Echo),
       {{0x55, 0x0E}, kEcho},
       500,
       Kind::Answered,
       2,
       3},
      {"a written-once exchange reads past a foreign reply",
       rules(Resend::Never, Answer::Echo),
       {kForeign, kEcho},
       500,
       Kind::Answered,
       1,
       3},
      {"any reply answers when the caller judges it",
       rules(Resend::EveryAttempt, Answer::AnyReply),
       {{0x77}},
       500,
       Kind::Answered,
       1,
       1},
      {"only foreign replies: the budget runs out",
       rules(Resend::Never, Answer::Echo),
       {kForeign},
       150,
       Kind::Unanswered,
       1,
       kRoom},
      {"a zero budget only writes",
       rules(Resend::EveryAttempt, Answer::Echo),
       {kEcho},
       0,
       Kind::Sent,
       1,
       kRoom},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    wcansim::clearWritten(adapter);
    for (const Bytes &bytes : c.replies) {
      wcansim::pushIn(adapter, kIn, bytes);
    }
    const ExchangeOutcome outcome = run(c.with, c.budgetMs, &usb);
    EXPECT_EQ(outcome.kind, c.kind);
    EXPECT_EQ(writes(), c.writes);
    EXPECT_EQ(replyLength, c.replyLength);
    // Whatever the exchange left unread must not answer the next one.
    uint8_t drain[kRoom];
    while (usb.ReadUSBDevice(drain, kRoom, kIn, 1) > 0) {
    }
  }
}

// A read may not outlast the budget, and once the budget is spent nothing is
// written again.
TEST_F(Exchange, ReadsAreCutToTheBudget) {
  const auto started = std::chrono::steady_clock::now();
  const ExchangeOutcome outcome = run(rules(Resend::EveryAttempt, Answer::Echo, 1000), 250, &usb);
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_EQ(outcome.kind, Kind::Unanswered);
  EXPECT_EQ(outcome.code(), -2);
  EXPECT_TRUE(outcome.failedAwaitingReply());
  EXPECT_EQ(writes(), 1u);
  EXPECT_GE(took, 250ms);
  EXPECT_LT(took, 700ms) << "the read waited its own time-out, not the budget";
}

TEST_F(Exchange, NoAdapterToTalkToFailsAtOnce) {
  wcansim::unplug(adapter);
  const auto started = std::chrono::steady_clock::now();
  const ExchangeOutcome gone = run(rules(Resend::EveryAttempt, Answer::Echo), 2000, &usb);
  EXPECT_EQ(gone.kind, Kind::WriteFailed);
  EXPECT_EQ(gone.code(), -1);
  const ExchangeOutcome nothingOpen = run(rules(Resend::Never, Answer::Echo), 2000, nullptr);
  EXPECT_EQ(nothingOpen.kind, Kind::WriteFailed);
  EXPECT_TRUE(nothingOpen.failedAwaitingReply());
  EXPECT_LT(std::chrono::steady_clock::now() - started, 1000ms);
}

TEST_F(Exchange, CountsAsInFlightUntilItEnds) {
  EXPECT_TRUE(exchange.idle());
  auto running = std::async(std::launch::async, [this] {
    return run(rules(Resend::EveryAttempt, Answer::Echo), 300, &usb);
  });
  const auto until = std::chrono::steady_clock::now() + 250ms;
  while (exchange.idle() && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_FALSE(exchange.idle());
  EXPECT_EQ(running.get().kind, Kind::Unanswered);
  EXPECT_TRUE(exchange.idle());
}

} // namespace
