// SPDX-License-Identifier: BSD-3-Clause
//
// A module that is made, initialised and ended while memory is refused.
#include <cerrno>
#include <iterator>
#include <set>

#include "tests/faults/life.h"
#include "tests/support/traces.h"

namespace faults {
namespace {

using Ledger::Tally;
using openflow_test::TraceMark;

// Making a module: what came of it, and how many of its 64 stores were made.
struct Made {
  std::string result;
  std::vector<std::string> failures;  // traced at level 0
  std::string refused;
  Tally granted;
};

int stores(const Made& made) {
  const auto found = made.granted.find("hash table");
  return found == made.granted.end() ? 0 : found->second;
}

// What a store's hash table could not be had for throws out of Init, which
// leaves the stores before it.
void deleteStores(OpenFlow* module, int number) {
  for (int i = 0; i < number; i++) {
    OpenFlowTable& table = OpenFlowPeer::table(*module, i / 2);
    if (i % 2 == 0) {
      delete table.ipv4.flows;
    } else {
      delete table.ipv6.flows;
    }
  }
}

// Makes and initialises a module, and destroys it, while request n fails.
Made make(int n) {
  std::unique_ptr<OpenFlow> module;
  Made made;
  const TraceMark mark;
  testing::internal::CaptureStderr();
  Ledger::Watch watch(n);
  made.result = outcome([&] {
    module.reset(new OpenFlow);
    return module->Init({});
  });
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            watch.refusedTag() == "hash table" ? "Error allocating hash table\n"
                                               : "");
  made.failures = mark.texts(0);
  made.refused = watch.refusedTag();
  made.granted = watch.granted();
  if (made.result == "done") module->DeInit();
  if (made.refused == "hash table") deleteStores(module.get(), stores(made));
  return made;
}

TEST(LifecycleFaults, InitFailsAsAWhole) {
  make(Ledger::Watch::kNone);  // trace statements run for the first time
  releaseAll();
  Ledger::settle();
  const int blocks = dpdkBlocks();
  std::set<std::string> refused;
  for (int n = 0;; n++) {
    Made made = make(n);
    if (made.refused.empty()) {
      EXPECT_EQ(made.result, "done");
      EXPECT_EQ(stores(made), 64);
      break;
    }
    SCOPED_TRACE("request " + std::to_string(n) + " refused: " + made.refused);
    std::vector<std::string> failures;
    if (made.refused == "new nothrow") {
      const std::string family = stores(made) % 2 == 0 ? "" : "ipv6 ";
      EXPECT_EQ(made.result,
                "12: Creation of " + family + "flows hash table failed");
      failures = {"Init Failed to alloc memory for " + family +
                  "flows hash table"};
    } else if (made.refused == "hash table") {
      EXPECT_EQ(made.result, "failed to construct");
    } else {
      EXPECT_EQ(made.result, "bad_alloc");
    }
    EXPECT_EQ(made.failures, failures);
    releaseAll();
    if (refused.insert(made.result).second) {
      Ledger::settle();
    } else {
      EXPECT_EQ(Ledger::live(), Tally());
    }
    EXPECT_EQ(dpdkBlocks(), blocks);
  }
  // The module itself, the database, and the stores of both families.
  EXPECT_THAT(refused, testing::IsSupersetOf(
                           {"bad_alloc", "failed to construct",
                            "12: Creation of flows hash table failed",
                            "12: Creation of ipv6 flows hash table failed"}));
}

// Neither needs memory, whatever there is to release.
TEST(LifecycleFaults, DeInitAndDestructionCannotFail) {
  Life().end();  // trace statements run for the first time
  Life life;
  for (const uint32_t table : {0u, 17u, 31u}) {
    life.bind(table);
    for (const int family : {kIpv4, kIpv6}) {
      for (const uint32_t version : {1u, 2u}) {
        EXPECT_EQ(
            life.update(updateOf(
                table, family, {{1, version}, {2, version}, {3, version}}, {})),
            "done");
      }
    }
  }
  Ledger::Watch watch(0);
  life.end();
  Ledger::Watch::stop();
  EXPECT_EQ(watch.requests(), 0);
}

}  // namespace
}  // namespace faults
