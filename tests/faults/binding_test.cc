// SPDX-License-Identifier: BSD-3-Clause
//
// Bindings and statistics while memory is refused.
#include "tests/faults/life.h"

namespace faults {
namespace {

using Ledger::Tally;

constexpr uint32_t kTable = 31;

// Trace statements run for the first time, and take memory for good.
void traceBindings() {
  Life life;
  life.bind(kTable);
  life.update(updateOf(kTable, kIpv4, {{1, 1}}, {}));
  life.update(updateOf(kTable, kIpv6, {{1, 1}}, {}));
}

// The first binding of a database makes the slots of this kind of module.
TEST(BindingFaults, TheFirstOneBindsBothFamiliesOrNone) {
  traceBindings();
  for (int n = 0;; n++) {
    Life life;
    Ledger::Watch watch(n);
    const std::string result = life.bind(kTable, 62, 63);
    if (!watch.refused()) {
      EXPECT_EQ(result, "done");
      EXPECT_GE(n, 2) << "slots and their table";
      break;
    }
    SCOPED_TRACE("request " + std::to_string(n));
    EXPECT_EQ(result, "bad_alloc");
    EXPECT_EQ(Ledger::live(), Tally());
    EXPECT_EQ(life.table(kTable).ipv4.aclCtx, nullptr);
    EXPECT_EQ(life.table(kTable).ipv6.aclCtx, nullptr);
    EXPECT_EQ(life.bind(kTable, 62, 63), "done");
    EXPECT_EQ(life.table(kTable).ipv4.aclCtx, &life.slot(62));
    EXPECT_EQ(life.table(kTable).ipv6.aclCtx, &life.slot(63));
  }
}

TEST(BindingFaults, LaterOnesNeedNoMemory) {
  Life life;
  life.bind(kTable);
  life.update(updateOf(kTable, kIpv4, {{1, 1}}, {}));
  Ledger::Watch watch(0);
  const std::string result = life.bind(5, 62, 63);
  EXPECT_EQ(result, "done");
  EXPECT_EQ(watch.requests(), 0);
  EXPECT_EQ(life.table(5).ipv4.aclCtx, &life.slot(62));
}

// A module that is gone has left both slots with classifiers that it freed.
TEST(BindingFaults, SlotsOfAModuleThatIsGoneAreEmptiedOrLeft) {
  traceBindings();
  for (int n = 0;; n++) {
    Life keepsTheDatabase;
    {
      Life gone;
      gone.bind(kTable);
      gone.update(updateOf(kTable, kIpv4, {{1, 1}}, {}));
      gone.update(updateOf(kTable, kIpv6, {{1, 1}}, {}));
      gone.end();
    }
    Life life;
    Ledger::Watch watch(n);
    const std::string result = life.bind(kTable, 62, 63);
    if (!watch.refused()) {
      EXPECT_EQ(result, "done");
      EXPECT_EQ(n, 2) << "one for each family";
      EXPECT_EQ(life.slot(62).data, nullptr);
      EXPECT_EQ(life.slot(63).data, nullptr);
      releaseAll();
      EXPECT_EQ(Ledger::live(), Tally());
      break;
    }
    EXPECT_EQ(result, "bad_alloc");
    releaseAll();  // the record of the slot that was emptied
    EXPECT_EQ(Ledger::live(), Tally());
    EXPECT_EQ(life.table(kTable).ipv4.aclCtx, nullptr);
    EXPECT_EQ(life.table(kTable).ipv6.aclCtx, nullptr);
    EXPECT_EQ(life.slot(62).data == nullptr, n == 1);
    EXPECT_NE(life.slot(63).data, nullptr);
    EXPECT_EQ(life.slot(63).data->ctx, life.slot(63).freedCtx);

    EXPECT_EQ(life.bind(kTable, 62, 63), "done");
    EXPECT_EQ(life.update(updateOf(kTable, kIpv6, {{7, 1}}, {})), "done");
    EXPECT_EQ(life.published(kTable, kIpv6), (Versions{{7, 1}}));
    EXPECT_EQ(life.published(kTable, kIpv4), Versions());
  }
}

TEST(StatisticsFaults, ChangeNothing) {
  Life life;
  life.bind(kTable);
  life.update(updateOf(kTable, kIpv4, {{1, 1}, {2, 1}}, {}));
  life.table(kTable).counters[kTableMisses] = 7;
  quil::pb::OpenFlowGetStatsArg arg;
  arg.set_tableid(kTable);
  life.module().getStats(arg);  // protobuf learns its types at the first use
  for (int n = 0;; n++) {
    Ledger::Watch watch(n);
    const std::string result =
        outcome([&] { return life.module().getStats(arg); });
    EXPECT_EQ(life.counters(kTable),
              (std::map<int, uint64_t>{{kTableMisses, 7}}));
    if (!watch.refused()) {
      EXPECT_EQ(result, "done");
      EXPECT_GE(n, 1);
      break;
    }
    EXPECT_EQ(result, "bad_alloc");
  }
  EXPECT_EQ(Ledger::live(), Tally());
}

}  // namespace
}  // namespace faults
