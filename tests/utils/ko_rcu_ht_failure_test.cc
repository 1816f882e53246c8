// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/utils/interpose.h"
#include "utils/ko_rcu_ht.h"

namespace {

using Table = KoRcuHt<uint32_t, int*>;

void countRelease(int* count) { ++*count; }

void throwOnRelease(int*) { throw std::logic_error("release failed"); }

void throwOnKeyRelease(uint32_t) { throw std::logic_error("release failed"); }

// What f throws and writes to standard error.
template <class F>
std::pair<std::string, std::string> failure(F f) {
  testing::internal::CaptureStderr();
  std::string what = "nothing thrown";
  try {
    f();
  } catch (const std::runtime_error& error) {
    what = error.what();
  }
  return {what, testing::internal::GetCapturedStderr()};
}

TEST(KoRcuHtFailure, ATableThatCannotBeMadeThrows) {
  const Interposed::Scope scope;
  Interposed::state().failNew = true;
  const auto [what, written] = failure([] { Table table("RTE", 1024); });
  EXPECT_EQ(what, "failed to construct");
  EXPECT_EQ(written, "Error allocating hash table\n");
}

TEST(KoRcuHtFailure, TheNumberOfBucketsMustBeAPowerOfTwo) {
  const auto [what, written] = failure([] { Table table("RTE", 1000); });
  EXPECT_EQ(what, "failed to construct");
  EXPECT_EQ(written, "Error allocating hash table\n");
}

TEST(KoRcuHtFailure, ATableThatCannotBeDestroyedThrows) {
  const Interposed::Scope scope;
  int released = 0;
  auto* table = new Table("RTE", 1024);
  table->addReplace(1, &released, countRelease);
  Interposed::state().failDestroy = true;
  const auto [what, written] = failure([&] { delete table; });
  EXPECT_EQ(what, "failed to destruct object");
  EXPECT_EQ(written, "Destroying hash table failed\n");
  EXPECT_EQ(released, 1) << "the nodes go first";
  EXPECT_NE(rcu_read_ongoing(), 0) << "and the caller is a reader again";
}

TEST(KoRcuHtFailure, ANodeThatAnotherWriterRemovedIsFreedAtOnce) {
  const Interposed::Scope scope;
  for (const bool deferFree : {true, false}) {
    int released = 0;
    Table table("RTE", 1024, deferFree);
    table.addReplace(1, &released, countRelease);
    table.lookup(1)->keyHandedOver = true;
    static int keys;
    keys = 0;
    table.lookup(1)->keyRelease = [](uint32_t) { keys++; };
    const int syncs = Interposed::state().syncs;
    Interposed::state().failDel = true;
    table.erase(1);
    Interposed::state().failDel = false;
    EXPECT_EQ(released, 1);
    EXPECT_EQ(keys, 1);
    EXPECT_EQ(Interposed::state().syncs, syncs);
  }
}

TEST(KoRcuHtFailure, DestructionFreesWhatAnotherWriterRemoved) {
  const Interposed::Scope scope;
  int released = 0;
  std::optional<Table> table;
  table.emplace("RTE", 1024);
  for (uint32_t key = 0; key < 10; key++) {
    table->addReplace(key, &released, countRelease);
  }
  Interposed::state().failDel = true;
  table.reset();
  EXPECT_EQ(released, 10);
  EXPECT_EQ(Interposed::state().frees.size(), 10u);
}

TEST(KoRcuHtFailureDeathTest, ADryHeapIsFatal) {
  Table table("RTE", 1024);
  EXPECT_DEATH(
      {
        Interposed::state().failZmalloc = true;
        table.addReplace(1, nullptr, nullptr);
      },
      "RteAllocator:72\\] Check failed: 0.*128 bytes for \"RTE_KoRcuHt\"");
}

TEST(KoRcuHtFailureDeathTest, AReleaseMustNotThrow) {
  for (const bool deferFree : {true, false}) {
    EXPECT_DEATH(
        {
          Table table("RTE", 1024, deferFree);
          table.addReplace(1, nullptr, throwOnRelease);
          try {
            table.erase(1);
          } catch (const std::logic_error&) {
            exit(0);
          }
          rcu_barrier();
        },
        "terminate called after throwing.*release failed");
  }
  EXPECT_DEATH(
      {
        Table table("RTE", 1024, false);
        table.addReplace(1, nullptr, nullptr);
        table.lookup(1)->keyRelease = throwOnKeyRelease;
        table.erase(1);
      },
      "terminate called after throwing.*release failed");
}

}  // namespace
