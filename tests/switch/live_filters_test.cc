// SPDX-License-Identifier: BSD-3-Clause
//
// Which flows a filter selects, to be listed and to be deleted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/switch/live_book.h"

namespace ofswitch {
namespace {

using testing::SizeIs;

struct FilterCase {
  const char* name;
  const char* filter;
  bool strict;
  std::vector<int> selected;  // of kFilterFlows, by line
};

constexpr const char* kFilterFlows[] = {
    "table=0,priority=7,cookie=0x11,tcp,nw_dst=10.1.0.0/16,actions=output:2",
    "table=0,priority=7,cookie=0x12,ip,nw_dst=10.0.0.0/8,actions=output:1",
    "table=0,priority=9,cookie=0x21,ip,nw_dst=10.0.0.0/8,actions=controller",
    "table=1,priority=7,ip,nw_dst=10.0.0.0/8,actions=drop",
    "table=1,in_port=3,actions=output:2,output:1",
};

const FilterCase kFilterCases[] = {
    {"Everything", "", false, {0, 1, 2, 3, 4}},
    {"Table", "table=1", false, {3, 4}},
    {"NarrowerMatches", "ip,nw_dst=10.0.0.0/8", false, {0, 1, 2, 3}},
    {"ProtocolNarrows", "tcp", false, {0}},
    {"NotTheWider", "ip,nw_dst=10.1.0.0/16", false, {0}},
    {"OtherAddress", "ip,nw_dst=11.0.0.0/8", false, {}},
    {"Cookie", "cookie=0x11/-1", false, {0}},
    {"CookieMask", "cookie=0x10/0xf0", false, {0, 1}},
    {"CookieBitsOutsideTheMask", "cookie=0x1f/0xf0", false, {0, 1}},
    {"OutPort", "out_port=2", false, {0, 4}},
    {"OutController", "out_port=controller", false, {2}},
    {"Strict", "table=0,priority=7,ip,nw_dst=10.0.0.0/8", true, {1}},
    {"StrictInAllTables", "priority=7,ip,nw_dst=10.0.0.0/8", true, {1, 3}},
    {"StrictDefaultPriority", "in_port=3", true, {4}},
    {"StrictOtherPriority", "priority=3,in_port=3", true, {}},
    {"StrictCookieMustFit",
     "cookie=0x99/-1,priority=7,ip,nw_dst=10.0.0.0/8",
     true,
     {}},
};

class Filters : public testing::TestWithParam<FilterCase> {};

TEST_P(Filters, DeleteAndListTheSame) {
  BookBench bench;
  std::string text;
  for (const char* flow : kFilterFlows) text += std::string(flow) + "\n";
  bench.add(text);
  std::vector<int> listed;
  for (const FlowBook::View& view : bench.book.select(
           parseFlowFilter(GetParam().filter, GetParam().strict), false)) {
    listed.push_back(view.installed->flow.line - 1);
  }
  EXPECT_THAT(listed, testing::UnorderedElementsAreArray(GetParam().selected));
  const pb::FlowChangeReply reply =
      bench.remove(GetParam().filter, GetParam().strict);
  EXPECT_EQ(reply.removed(), GetParam().selected.size());
  EXPECT_THAT(bench.texts(), SizeIs(5 - GetParam().selected.size()));
  for (const FlowBook::View& view : bench.book.select({}, false)) {
    EXPECT_THAT(GetParam().selected,
                testing::Not(testing::Contains(view.installed->flow.line - 1)));
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, Filters, testing::ValuesIn(kFilterCases),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace ofswitch
