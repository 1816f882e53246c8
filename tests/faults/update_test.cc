// SPDX-License-Identifier: BSD-3-Clause
//
// Updates whose n-th request for memory is refused, for every n until they need
// no more: what is answered, counted and traced, what packets meet meanwhile,
// that the next update repairs everything, and what stays allocated when all
// flows are gone.
#include <set>
#include <utility>

#include "tests/faults/life.h"
#include "tests/support/traces.h"

namespace faults {
namespace {

using Ledger::Tally;
using openflow_test::TraceMark;
using Traces = std::vector<std::string>;

constexpr uint32_t kTable = 31;
const std::string kContext = "table31-";
const std::string kFailed = "Failed to update flows";

// What a refusal must lead to.
struct Consequence {
  std::string result;
  bool storeChanged = false;
  bool published = false;
  std::map<int, uint64_t> counters;
  Traces failures;  // at level 0
  Tally kept;       // in the end
};

// An update of one family, by what it does to the flows of `before`.
struct Change {
  const char* name;
  Versions before;
  Versions adds;
  std::vector<uint32_t> deletes;
  Versions after;
};

void PrintTo(const Change& change, std::ostream* out) { *out << change.name; }

const Change kChanges[] = {
    {"FirstFlows", {}, {{1, 1}, {2, 1}}, {}, {{1, 1}, {2, 1}}},
    {"AddReplaceDelete",
     {{1, 1}, {2, 1}, {3, 1}},
     {{1, 2}, {4, 2}, {5, 2}},
     {2},
     {{1, 2}, {3, 1}, {4, 2}, {5, 2}}},
    {"DeleteSome", {{1, 1}, {2, 1}, {3, 1}}, {}, {1, 3}, {{2, 1}}},
    {"DeleteAll", {{1, 1}, {2, 1}}, {{3, 2}}, {1, 2, 3}, {}},
    {"Rebuild", {{1, 1}}, {}, {}, {{1, 1}}},
};

class UpdateFaults : public testing::TestWithParam<std::tuple<int, Change>> {
 protected:
  int family() const { return std::get<0>(GetParam()); }
  const Change& change() const { return std::get<1>(GetParam()); }

  std::string context() const {
    const bool first = change().before.empty();
    return kContext + (family() == kIpv6 ? "ipv6-" : "") +
           (first ? "10000001" : "10000002");
  }
  std::string onTable() const {
    return "tableId: 31, flowType: " + std::to_string(family());
  }

  // What a build that fails keeps: the userdata array and its blocks.
  Tally keptByBuild() const {
    return {{"new[]", 1},
            {"openflowuserdata", static_cast<int>(change().after.size())}};
  }

  Consequence expected(const std::string& tag, const Tally& granted,
                       const std::string& result) const;

  // What every classifier keeps: the block of its last flow.
  Tally lastFlowsBlock() const {
    return change().after.empty() ? Tally{} : Tally{{"openflowuserdata", 1}};
  }

  void expectSuccess();
  void expectRefusal(const Consequence& wanted);
  void expectKept(const Tally& kept, int others, int blocksBefore);

  // The change to a table that is empty before and after, while request n
  // fails; false when there is no such request.
  bool refuse(int n);

  Life life_;
};

INSTANTIATE_TEST_SUITE_P(Family, UpdateFaults,
                         testing::Combine(testing::Values(kIpv4, kIpv6),
                                          testing::ValuesIn(kChanges)),
                         [](const auto& row) {
                           return (std::get<0>(row.param) == kIpv6 ? "Ipv6"
                                                                   : "Ipv4") +
                                  std::string(std::get<1>(row.param).name);
                         });

int count(const Tally& tally, const std::string& tag) {
  const auto found = tally.find(tag);
  return found == tally.end() ? 0 : found->second;
}

Consequence UpdateFaults::expected(const std::string& tag, const Tally& granted,
                                   const std::string& result) const {
  const std::string outOfMemory = "-12: " + kFailed;
  if (tag == "openflowentry") {
    Tally kept;
    // Those before the one that failed stay.
    if (count(granted, tag) > 0) kept[tag] = count(granted, tag);
    return {outOfMemory,
            false,
            false,
            {{0, 1}},
            {"processUpdateFlows Failed to allocate memory for flow entries"},
            kept};
  }
  if (tag == "openflowallrules") {
    return {outOfMemory,
            false,
            false,
            {{0, 1}},
            {"processUpdateFlows Failed to allocate memory for all acl rules"},
            {}};
  }
  if (tag == "new[]") return {"bad_alloc", false, false, {}, {}, {}};
  if (tag == "openflowuserdata") {
    // The last flow's block is the one that its classifier leaves behind.
    const bool last =
        count(granted, tag) + 1 == static_cast<int>(change().after.size());
    return {"done",
            true,
            true,
            {},
            {"makeAclUserdata Failed to allocate memory for userdata action"},
            last ? Tally{} : lastFlowsBlock()};
  }
  if (result == "bad_alloc") {  // ordinary heap: a name, a record
    const bool empty = change().after.empty();
    return {"bad_alloc", true, false, {}, {}, empty ? Tally{} : keptByBuild()};
  }
  const bool created = count(granted, "ACL_" + context()) > 0 &&
                       count(granted, "ACL_TAILQ_ENTRY") > 0;
  Consequence failed;
  failed.result = "-1: " + kFailed;
  failed.storeChanged = true;
  failed.counters[0] = 1;
  failed.kept = keptByBuild();
  if (created) {
    failed.counters[3] = 1;
    failed.failures = {"programAcl Failed to build acl for " + onTable() +
                       " error: -12"};
  } else {
    failed.counters[1] = 1;
    failed.failures = {"programAcl Failed to create rte acl context: " +
                       context() + " for " + onTable()};
  }
  failed.failures.push_back(
      "processUpdateFlows Failed to program acl rules for " + onTable());
  return failed;
}

// What is lost when the table is empty again: what the operation is to keep,
// and `others` blocks of classifiers that no watch saw being built.
void UpdateFaults::expectKept(const Tally& kept, int others, int blocksBefore) {
  life_.empty(kTable, family());
  EXPECT_EQ(Ledger::live(), kept);
  int blocks = blocksBefore + others;
  for (const auto& [tag, number] : kept) {
    if (!tag.starts_with("new")) blocks += number;
  }
  EXPECT_EQ(dpdkBlocks(), blocks);
  Ledger::settle();
}

void UpdateFaults::expectSuccess() {
  EXPECT_EQ(life_.stored(kTable, family()), change().after);
  EXPECT_EQ(life_.published(kTable, family()), change().after);
}

void UpdateFaults::expectRefusal(const Consequence& wanted) {
  EXPECT_EQ(life_.counters(kTable), wanted.counters);
  EXPECT_EQ(life_.stored(kTable, family()),
            wanted.storeChanged ? change().after : change().before);
  Versions published = life_.published(kTable, family());
  if (!wanted.published) {
    EXPECT_EQ(published, change().before);
    return;
  }
  // All but one, which has no action.
  EXPECT_EQ(published.size(), change().after.size());
  EXPECT_EQ(std::erase_if(published,
                          [&](const auto& flow) {
                            return !change().after.contains(flow.first) ||
                                   flow.second == kNoAction;
                          }),
            1u);
}

bool UpdateFaults::refuse(int n) {
  const int blocksBefore = dpdkBlocks();
  int others = 0;  // classifiers that come and go beside the one in question
  if (!change().before.empty()) {
    life_.update(updateOf(kTable, family(), change().before, {}));
    others++;
  }

  const auto arg = updateOf(kTable, family(), change().adds, change().deletes);
  const TraceMark mark;
  Ledger::Watch watch(n);
  const std::string result = life_.update(arg);
  const std::string tag = watch.refusedTag();
  SCOPED_TRACE("request " + std::to_string(n) + " refused: " + tag);
  if (!watch.refused()) {
    EXPECT_EQ(result, "done");
    EXPECT_TRUE(life_.counters(kTable).empty());
    expectSuccess();
    expectKept(lastFlowsBlock(), others, blocksBefore);
    return false;
  }

  const Consequence wanted = expected(tag, watch.granted(), result);
  EXPECT_EQ(result, wanted.result);
  EXPECT_EQ(mark.texts(0), wanted.failures);
  expectRefusal(wanted);

  // The same again succeeds, and makes everything good.
  EXPECT_EQ(life_.update(arg), "done");
  expectSuccess();
  EXPECT_EQ(life_.counters(kTable), wanted.counters);
  if (!change().after.empty()) others++;
  static std::set<std::string> ways;
  if (ways.insert(std::to_string(family()) + tag + result).second) {
    // Trace statements that run for the first time take memory for good.
    life_.empty(kTable, family());
    Ledger::settle();
    return refuse(n);
  }
  expectKept(wanted.kept, others, blocksBefore);
  return true;
}

TEST_P(UpdateFaults, AreAnsweredAndRepaired) {
  life_.bind(kTable);
  // The first run of all that can succeed.
  life_.update(updateOf(kTable, family(), change().before, {}));
  life_.update(updateOf(kTable, family(), change().adds, change().deletes));
  life_.empty(kTable, family());
  int n = 0;
  while (refuse(n)) {
    n++;
    ASSERT_LT(n, 200);
  }
  EXPECT_GE(n, 2) << "something was refused";
}

}  // namespace
}  // namespace faults
