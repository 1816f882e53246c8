// SPDX-License-Identifier: BSD-3-Clause
//
// Trace statements take memory for their texts. Where there is none, the text
// is lost, and the command that traces goes on as if nobody were reading.
#include "platform/twinlog/twinlog.h"
#include "tests/faults/life.h"

namespace faults {
namespace {

constexpr uint32_t kTable = 31;
constexpr uint32_t kAllLevels = 0x3f;

// How an update ends when request n is refused, for every n; those that are
// done nevertheless are not listed.
struct Ends {
  std::vector<std::string> failures;
  int requests = 0;
};

class TraceFaults : public testing::TestWithParam<int> {
 protected:
  TraceFaults() {
    Twinlog::removeSink(Twinlog::kStandardErrorSink);
    life_.bind(kTable);
  }
  ~TraceFaults() override {
    Mio::setTraceLevels("OpenFlow", 0);
    Twinlog::addStandardErrorSink();
    Ledger::settle();
  }

  Ends refuseEach(uint32_t levels) {
    const auto arg = updateOf(kTable, GetParam(), {{1, 1}, {2, 2}}, {3});
    Ends ends;
    for (bool refused = true; refused; ends.requests++) {
      life_.update(updateOf(kTable, GetParam(), {{2, 1}, {3, 1}}, {}));
      Mio::setTraceLevels("OpenFlow", levels);
      Ledger::Watch watch(ends.requests);
      const std::string end = life_.update(arg);
      Mio::setTraceLevels("OpenFlow", 0);
      refused = watch.refused();
      if (end != "done") ends.failures.push_back(end);
      SCOPED_TRACE("request " + std::to_string(ends.requests) +
                   " refused: " + watch.refusedTag());
      EXPECT_EQ(life_.update(arg), "done");
      EXPECT_EQ(life_.stored(kTable, GetParam()), (Versions{{1, 1}, {2, 2}}));
      EXPECT_EQ(life_.published(kTable, GetParam()),
                (Versions{{1, 1}, {2, 2}}));
      life_.empty(kTable, GetParam());
    }
    return ends;
  }

  Life life_;
};

INSTANTIATE_TEST_SUITE_P(Family, TraceFaults, testing::Values(kIpv4, kIpv6),
                         [](const auto& row) {
                           return row.param == kIpv6 ? "Ipv6" : "Ipv4";
                         });

TEST_P(TraceFaults, TextsWithoutMemoryChangeNothing) {
  refuseEach(0);  // the first run of every statement
  const Ends untraced = refuseEach(0);
  EXPECT_THAT(untraced.failures, testing::Contains("bad_alloc"));
  const Ends traced = refuseEach(kAllLevels);
  EXPECT_EQ(traced.failures, untraced.failures);
  EXPECT_GT(traced.requests, untraced.requests + 50);
}

}  // namespace
}  // namespace faults
