// SPDX-License-Identifier: BSD-3-Clause
//
// What becomes of the packets of a flow, and where they are accounted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <ostream>
#include <tuple>

#include "switch/flow/flow_reader.h"
#include "switch/live/accounting.h"
#include "switch/live/controller_frame.h"
#include "switch/live/rule_end.h"
#include "tests/switch/live_book.h"

namespace ofswitch {
namespace {

using Kind = RuleEnd::Kind;

struct EndRow {
  const char* flow;
  RuleEnd end;
};

void PrintTo(const EndRow& row, std::ostream* out) { *out << row.flow; }

const EndRow kEnds[] = {
    {"actions=output:2", {Kind::kSent}},
    {"actions=in_port", {Kind::kSent}},
    {"actions=all", {Kind::kSent}},
    {"actions=flood", {Kind::kSent}},
    {"actions=controller", {Kind::kSent}},
    {"actions=drop", {Kind::kDropped}},
    {"actions=goto_table:7", {Kind::kGoto, 7}},
    {"actions=output:2,goto_table:31", {Kind::kGoto, 31}},
    {"actions=mod_dl_dst:02:00:00:00:00:01", {Kind::kNoOutput}},
    {"actions=clear_actions", {Kind::kNoOutput}},
    {"ip,actions=dec_ttl", {Kind::kNoOutput}},
    {"ip,actions=dec_ttl,output:2", {Kind::kSent}},
    {"ip,nw_ttl=1,actions=dec_ttl,output:2", {Kind::kTtlExpired}},
    {"ip,nw_ttl=0/0xfe,actions=dec_ttl,goto_table:3", {Kind::kTtlExpired}},
    {"ip,nw_ttl=2,actions=dec_ttl,output:2", {Kind::kSent}},
    {"ip,nw_ttl=1,actions=output:2", {Kind::kSent}},
    {"ip,nw_ttl=1,actions=drop", {Kind::kDropped}},
};

class Ends : public testing::TestWithParam<EndRow> {};

TEST_P(Ends, FollowFromTheActions) {
  const Flow flow = FlowReader().readLine(GetParam().flow);
  EXPECT_EQ(endOf(flow, prepareFlow(flow, {1, 2, 3})), GetParam().end);
}

// As flows have it that were not read from text.
TEST(RuleEnds, WithoutAnyActionIsADrop) {
  const Flow drop = FlowReader().readLine("actions=drop");
  EXPECT_EQ(endOf(Flow(), prepareFlow(drop, {1, 2, 3})),
            (RuleEnd{Kind::kDropped}));
}

INSTANTIATE_TEST_SUITE_P(Rows, Ends, testing::ValuesIn(kEnds));

TEST(Accounting, HasACauseForEachEnd) {
  SwitchCounts counts;
  SwitchCounts::Port port;
  port.number = 1;
  port.stats.rx_received = port.stats.rx_packets = 21;
  counts.ports = {port};
  counts.matched = {{{0, {Kind::kNoOutput}}, 1},
                    {{0, {Kind::kDropped}}, 2},
                    {{0, {Kind::kTtlExpired}}, 3},
                    {{0, {Kind::kMissed}}, 4},
                    {{0, {Kind::kSent}}, 5}};
  counts.tables[0].set_tablemisses(6);
  counts.matchedLater = counts.matched;
  counts.deadEnds = 21;
  counts.exact = true;
  MissingPackets missing;
  const SwitchAccount account = makeSwitchAccount(counts, &missing);
  EXPECT_THAT(account.discrepancies, testing::IsEmpty());
  const TableAccount& table = account.tables[0];
  EXPECT_EQ(table.matched, 11);
  EXPECT_EQ(table.forwarded, 5);
  EXPECT_EQ(table.drop(SwitchDrop::kNoOutput), 1);
  EXPECT_EQ(table.drop(SwitchDrop::kDropAction), 2);
  EXPECT_EQ(table.drop(SwitchDrop::kTtlExpired), 3);
  EXPECT_EQ(table.drop(SwitchDrop::kTableMiss), 10);
  for (size_t i = 0; i < kSwitchDrops.size(); i++) {
    EXPECT_EQ(account.drops[i], table.drops[i]) << kSwitchDrops[i].name;
  }
}

// A notice of more than there is room for would drown what people read.
TEST(FlowBook, NotesAHundredReplacedFlows) {
  BookBench bench;
  std::string text;
  for (int i = 0; i < 150; i++) text += "tcp,tp_dst=80,actions=output:2\n";
  const FlowBook::Plan plan = bench.book.planAdd(BookBench::flows(text), false);
  EXPECT_EQ(plan.added, 1u);
  ASSERT_THAT(plan.notes, testing::SizeIs(100));
  EXPECT_EQ(plan.notes[99].text(),
            "test:100: replaced by test:150, which has the same table, "
            "priority and match");
}

TEST(FlowBook, NotesAHundredOutputsToNowhere) {
  BookBench bench;
  std::string text;
  for (int i = 0; i < 150; i++) {
    text += "tcp,tp_dst=" + std::to_string(i) + ",actions=output:9\n";
  }
  const FlowBook::Plan plan = bench.book.planAdd(BookBench::flows(text), false);
  EXPECT_EQ(plan.added, 150u);
  EXPECT_THAT(plan.notes, testing::SizeIs(100));
}

// Flood reaches more ports than the module's list of outputs holds. The
// refusals of a large file are cut short.
TEST(FlowBook, RefusesFloodsToTooManyPorts) {
  SwitchPorts ports(65);
  std::iota(ports.begin(), ports.end(), uint16_t{1});
  CounterPool counters{1 << 20, [](uint32_t) { return uint64_t{0}; }};
  FlowBook book{ports, &counters};
  std::string text = "actions=output:1\n";
  for (int i = 0; i < 1500; i++) text += "actions=flood\n";
  const FlowBook::Plan plan = book.planAdd(BookBench::flows(text), false);
  ASSERT_THAT(plan.refusals, testing::SizeIs(1000));
  EXPECT_EQ(plan.refusals[0].text(),
            "test:2: sends 65 copies; the module's output list holds 64");
  EXPECT_EQ(plan.refusals[999].line, 1001);
  EXPECT_THAT(plan.updates, testing::IsEmpty());
  ports.pop_back();
  FlowBook smaller{ports, &counters};
  EXPECT_THAT(
      smaller.planAdd(BookBench::flows("actions=flood"), false).refusals,
      testing::IsEmpty());
}

TEST(ControllerFrame, IsWhatStandsBetweenHeaderAndTrailer) {
  std::vector<uint8_t> packet(60);
  packet[13] = 0x31;
  packet[17] = 2;
  const auto frame = [&](size_t size, uint32_t total) {
    const ControllerFrame found = controllerFrame(packet.data(), size, total);
    return std::tuple(found.reason, found.skip, found.length);
  };
  EXPECT_EQ(frame(60, 60), std::tuple(2, 22, 34));
  EXPECT_EQ(frame(22, 1000), std::tuple(2, 22, 974));
  EXPECT_EQ(frame(26, 26), std::tuple(2, 22, 0));
  // Too short for header and trailer, or without the header's mark.
  EXPECT_EQ(frame(25, 25), std::tuple(0, 0, 25));
  EXPECT_EQ(frame(21, 60), std::tuple(0, 0, 60));
  packet[13] = 0x30;
  EXPECT_EQ(frame(60, 60), std::tuple(0, 0, 60));
}

}  // namespace
}  // namespace ofswitch
