// SPDX-License-Identifier: MIT
// The soak run's verdict: each fault it exists to catch fails the run, and
// what an unplug excuses does not.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "bench/soak/SoakTraffic.h"

namespace {

using soak::Clock;
using soak::Ledger;
using std::chrono::milliseconds;

const Clock::time_point t0 = Clock::now();
Clock::time_point at(int ms) { return t0 + milliseconds(ms); }

// One frame a millisecond each way from `fromMs` to before `toMs`, each
// arriving a millisecond after it was sent unless its send time is in
// `missing`.
void traffic(Ledger &ledger, int fromMs, int toMs, const std::set<int> &missing = {}) {
  for (int ms = fromMs; ms < toMs; ++ms) {
    for (unsigned dir = 0; dir < 2; ++dir) {
      const uint32_t seq = ledger.nextSeq(dir);
      ledger.sent(dir, at(ms));
      if (missing.count(ms) == 0) {
        ledger.arrived(dir, seq, at(ms + 1));
      }
    }
  }
}

// Steady traffic, then an unplug at 100 ms and a replug at 150 ms; nothing
// sent from 95 ms until 160 ms arrives, then traffic flows again until 300 ms.
// The tests let frames be on their way for 10 ms.
void outage(Ledger &ledger, const std::set<int> &alsoMissing = {}) {
  std::set<int> missing = alsoMissing;
  for (int ms = 95; ms < 160; ++ms) {
    missing.insert(ms);
  }
  traffic(ledger, 0, 100, missing);
  ledger.cycle(at(100), at(150));
  traffic(ledger, 100, 300, missing);
}

struct Expect {
  uint64_t lost, disorder, foreign, wrongAdapter;
  size_t failedRecoveries;
  bool passed;
};

struct Case {
  const char *name;
  std::function<void(Ledger &)> script;
  size_t minCycles;
  Expect expect;
};

TEST(SoakLedger, ReportsEveryFaultAndExcusesTheOutage) {
  const Case cases[] = {
      {"steady traffic arrives whole",
       [](Ledger &l) { traffic(l, 0, 100); },
       0,
       {0, 0, 0, 0, 0, true}},
      {"frames sent around an outage are excused",
       [](Ledger &l) { outage(l); },
       1,
       {0, 0, 0, 0, 0, true}},
      {"a frame lost after the recovery fails",
       [](Ledger &l) { outage(l, {200}); },
       1,
       {2, 0, 0, 0, 0, false}},
      {"a frame dropped before later ones came fails",
       [](Ledger &l) { outage(l, {50}); },
       1,
       {2, 0, 0, 0, 0, false}},
      {"a frame dropped just before the unplug fails",
       [](Ledger &l) {
         traffic(l, 0, 100, {97});
         l.cycle(at(100), at(150));
         traffic(l, 150, 200);
       },
       1,
       {2, 0, 0, 0, 0, false}},
      {"frames on their way longer than allowed at the unplug fail",
       [](Ledger &l) {
         std::set<int> missing;
         for (int ms = 80; ms < 100; ++ms) {
           missing.insert(ms);
         }
         traffic(l, 0, 100, missing);
         l.cycle(at(100), at(150));
         traffic(l, 150, 200);
       },
       1,
       {20, 0, 0, 0, 0, false}},
      {"a duplicate fails",
       [](Ledger &l) {
         traffic(l, 0, 20);
         l.arrived(0, 10, at(30));
       },
       0,
       {0, 1, 0, 0, 0, false}},
      {"reordering fails",
       [](Ledger &l) {
         traffic(l, 0, 10, {5});
         l.arrived(0, 5, at(20));
         l.arrived(1, 5, at(20));
       },
       0,
       {0, 2, 0, 0, 0, false}},
      {"a frame nobody sent fails",
       [](Ledger &l) {
         traffic(l, 0, 10);
         l.arrived(1, 9999, at(20));
       },
       0,
       {0, 0, 1, 0, 0, false}},
      {"a frame through another handle fails",
       [](Ledger &l) {
         traffic(l, 0, 10);
         l.foreign(0, at(20), "test");
       },
       0,
       {0, 0, 1, 0, 0, false}},
      {"a recovery never seen fails",
       [](Ledger &l) {
         traffic(l, 0, 100);
         l.cycle(at(100), at(150));
       },
       1,
       {0, 0, 0, 0, 1, false}},
      {"a handle back on another adapter fails",
       [](Ledger &l) {
         traffic(l, 0, 10);
         l.beacon(false);
       },
       0,
       {0, 0, 0, 1, 0, false}},
      {"too few cycles fail", [](Ledger &l) { traffic(l, 0, 10); }, 1, {0, 0, 0, 0, 0, false}},
  };
  for (const Case &c : cases) {
    Ledger ledger;
    c.script(ledger);
    ledger.beacon(true);
    const soak::Report r = ledger.analyse("rig", milliseconds(10));
    EXPECT_EQ(r.lost, c.expect.lost) << c.name;
    EXPECT_EQ(r.disorder, c.expect.disorder) << c.name;
    EXPECT_EQ(r.foreign, c.expect.foreign) << c.name;
    EXPECT_EQ(r.wrongAdapter, c.expect.wrongAdapter) << c.name;
    EXPECT_EQ(r.failedRecoveries, c.expect.failedRecoveries) << c.name;
    EXPECT_EQ(r.passed(c.minCycles), c.expect.passed) << c.name;
  }
}

TEST(SoakLedger, RecoveryLastsUntilTrafficIsSeenBothWays) {
  Ledger ledger;
  outage(ledger);
  const soak::Report r = ledger.analyse("rig", milliseconds(10));
  ASSERT_EQ(r.recoveryMs.size(), 1u);
  EXPECT_DOUBLE_EQ(r.recoveryMs[0], 11.0); // replug at 150 ms, first frames sent at 160 ms
  EXPECT_FALSE(ledger.awaitingRecovery());
}

TEST(SoakLedger, RunWithoutBeaconsFailsForItNeverCheckedTheAdapter) {
  Ledger ledger;
  traffic(ledger, 0, 10);
  EXPECT_FALSE(ledger.analyse("rig", milliseconds(10)).passed(0));
}

} // namespace
