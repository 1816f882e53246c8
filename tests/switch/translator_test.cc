// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/translator.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "switch/flow/flow_printer.h"
#include "switch/flow/ttl_guard.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

std::vector<Flow> flows(const std::string& text,
                        const std::string& name = "flows.txt") {
  std::istringstream in(text);
  FlowFile file = FlowReader().read(in, name);
  EXPECT_TRUE(file.ok()) << file.refusals[0].text();
  return file.flows;
}

std::vector<std::string> texts(const std::vector<Diagnostic>& diagnostics) {
  std::vector<std::string> lines;
  for (const Diagnostic& one : diagnostics) lines.push_back(one.text());
  return lines;
}

class Translator : public testing::Test {
 protected:
  IdAllocator ids_;
  FlowTranslator translator_{{1, 2, 3}, &ids_};
};

TEST_F(Translator, SendsOneUpdateATableAndFamily) {
  const Translation translation = translator_.add(
      flows("table=1,ipv6,actions=drop\n"
            "table=0,priority=5,in_port=2,actions=goto_table:1\n"
            "table=1,priority=65535,actions=output:2\n"
            "table=0,priority=0,actions=output:7\n"));
  ASSERT_TRUE(translation.ok());
  ASSERT_EQ(translation.updates.size(), 3u);
  EXPECT_TRUE(isMessage(translation.updates[0],
                        "tableId: 0 flowType: OPENFLOW_TYPE_IPV4 "
                        "adds{match{fields{metadata:true} values{metadata:2}} "
                        "action{fields{gotoTbl:true} values{nextTbl:1}} "
                        "flowId:2 priority:12 packetCounterId:3 "
                        "byteCounterId:4} "
                        "adds{action{fields{setOutputAll:true} "
                        "values{ogate:7}} flowId:4 priority:2 "
                        "packetCounterId:7 byteCounterId:8}"));
  EXPECT_TRUE(isMessage(translation.updates[1],
                        "tableId: 1 flowType: OPENFLOW_TYPE_IPV4 "
                        "adds{action{fields{setOutputAll:true} "
                        "values{ogate:2}} flowId:3 priority:131072 "
                        "packetCounterId:5 byteCounterId:6}"));
  EXPECT_TRUE(
      isMessage(translation.updates[2],
                "tableId: 1 flowType: OPENFLOW_TYPE_IPV6 "
                "adds{match{fields{ethType:true} values{ethType:0x86dd}} "
                "action{fields{setOutputDrop:true}} flowId:1 priority:65538 "
                "packetCounterId:1 byteCounterId:2}"));
  EXPECT_EQ(ids_.numCounters(), 9u);
}

TEST_F(Translator, ReplacesTheFlowOfSamePriorityAndMatch) {
  const Translation first = translator_.add(
      flows("priority=7,tcp,tp_dst=80,actions=output:1\n"
            "priority=7,tp_dst=0x50,nw_proto=6,ip,actions=output:2\n",
            "a.txt"));
  EXPECT_EQ(texts(first.notes),
            (std::vector<std::string>{
                "a.txt:2: replaces the flow of a.txt:1, which has the same "
                "table, priority and match"}));
  ASSERT_EQ(first.updates.size(), 1u);
  ASSERT_EQ(first.updates[0].adds_size(), 1);
  EXPECT_EQ(first.updates[0].adds(0).flowid(), 1u);
  EXPECT_EQ(first.updates[0].adds(0).action().values().ogate(0), 2u);

  const Translation second =
      translator_.add(flows("priority=7,tcp,tp_dst=80,actions=drop\n"
                            "priority=8,tcp,tp_dst=80,actions=output:1\n",
                            "b.txt"));
  EXPECT_EQ(texts(second.notes),
            (std::vector<std::string>{
                "b.txt:1: replaces the flow of a.txt:2, which has the same "
                "table, priority and match"}));
  ASSERT_EQ(second.updates.size(), 1u);
  ASSERT_EQ(second.updates[0].adds_size(), 2);
  EXPECT_EQ(second.updates[0].adds(0).flowid(), 1u);
  // A new flow, as far as its counters are concerned.
  EXPECT_NE(second.updates[0].adds(0).packetcounterid(),
            first.updates[0].adds(0).packetcounterid());
  ASSERT_EQ(translator_.installed().size(), 2u);
  EXPECT_EQ(flowText(translator_.installed()[0]->flow),
            "table=0,priority=7,tcp,tp_dst=80,actions=drop");
}

TEST_F(Translator, GuardsFlowsThatDecrementTheTtl) {
  const Translation translation =
      translator_.add(flows("priority=10,ip,actions=dec_ttl,output:1\n"));
  ASSERT_EQ(translation.updates.size(), 1u);
  EXPECT_TRUE(
      isMessage(translation.updates[0],
                "tableId: 0 flowType: OPENFLOW_TYPE_IPV4 "
                "adds{match{fields{ethType:true} values{ethType:0x0800}} "
                "action{fields{decTtl:true setOutputAll:true} values{ogate:1}} "
                "flowId:1 priority:22 packetCounterId:1 byteCounterId:2} "
                "adds{match{fields{ethType:true ipTtl:true} "
                "values{ethType:0x0800 ipTtl:0 ipTtlMask:0xfe}} "
                "action{fields{setOutputDrop:true}} "
                "flowId:2 priority:23 packetCounterId:3 byteCounterId:4}"));
  ASSERT_EQ(translator_.installed().size(), 1u);
  ASSERT_EQ(translator_.installed()[0]->guards.size(), 1u);
  EXPECT_EQ(translator_.installed()[0]->guards[0].flowId, 2u);
}

TEST_F(Translator, TakesTheGuardsOfAReplacedFlowAway) {
  translator_.add(flows("priority=10,ip,actions=dec_ttl,output:1\n"));
  const Translation translation =
      translator_.add(flows("priority=10,ip,actions=output:1\n"));
  ASSERT_EQ(translation.updates.size(), 1u);
  ASSERT_EQ(translation.updates[0].adds_size(), 1);
  EXPECT_EQ(translation.updates[0].adds(0).flowid(), 1u);
  ASSERT_EQ(translation.updates[0].deletes_size(), 1);
  EXPECT_EQ(translation.updates[0].deletes(0).flowid(), 2u);
}

struct GuardCase {
  const char* line;
  std::vector<std::string> guards;
  bool flowDrops = false;
};

TEST(TtlGuards, CoverExactlyTheExpiredPacketsOfTheFlow) {
  const GuardCase kCases[] = {
      {"ip,actions=dec_ttl,1", {"ip,nw_ttl=0/0xfe"}},
      {"tcp6,in_port=3,tp_dst=80,actions=dec_ttl,1",
       {"in_port=3,tcp6,nw_ttl=0/0xfe,tp_dst=80"}},
      {"dl_vlan=5,actions=dec_ttl,1",
       {"ip,dl_vlan=5,nw_ttl=0/0xfe", "ipv6,dl_vlan=5,nw_ttl=0/0xfe"}},
      {"ip,nw_ttl=2,actions=dec_ttl,1", {}},
      {"ip,nw_ttl=1,actions=dec_ttl,1", {}, true},
      {"ip,nw_ttl=0/0xfe,actions=dec_ttl,1", {}, true},
      {"ip,nw_ttl=1/0x01,actions=dec_ttl,1", {"ip,nw_ttl=1"}},
      {"ip,nw_ttl=0/0xf0,actions=dec_ttl,1", {"ip,nw_ttl=0/0xfe"}},
      {"ip,nw_ttl=0x10/0x10,actions=dec_ttl,1", {}},
      {"ip,actions=output:1", {}},
      {"ip,actions=output:1,dec_ttl", {}},  // nobody sees the decrement
  };
  for (const GuardCase& row : kCases) {
    const Flow flow = FlowReader().readLine(row.line);
    const TtlGuards guards = ttlGuards(flow.match, planActions(flow));
    std::vector<std::string> matches;
    for (const Match& match : guards.matches) {
      matches.push_back(matchText(match));
    }
    EXPECT_EQ(matches, row.guards) << row.line;
    EXPECT_EQ(guards.flowDrops, row.flowDrops) << row.line;
  }
}

TEST_F(Translator, DropsWhatAFlowOfExpiredPacketsWouldDecrement) {
  const Translation translation =
      translator_.add(flows("ip,nw_ttl=1,actions=dec_ttl,output:1\n"));
  ASSERT_EQ(translation.updates.size(), 1u);
  ASSERT_EQ(translation.updates[0].adds_size(), 1);
  EXPECT_TRUE(isMessage(translation.updates[0].adds(0).action(),
                        "fields{setOutputDrop:true}"));
}

TEST_F(Translator, GivesReachableEmptyTablesAMissFlow) {
  const Translation first =
      translator_.add(flows("table=2,actions=goto_table:9\n"));
  ASSERT_EQ(first.updates.size(), 3u);
  EXPECT_TRUE(isMessage(first.updates[0],
                        "tableId: 0 adds{action{fields{setOutputDrop:true}} "
                        "flowId:2 priority:1 packetCounterId:3 "
                        "byteCounterId:4}"));
  EXPECT_EQ(first.updates[1].tableid(), 2u);
  EXPECT_TRUE(isMessage(first.updates[2],
                        "tableId: 9 adds{action{fields{setOutputDrop:true}} "
                        "flowId:3 priority:1 packetCounterId:5 "
                        "byteCounterId:6}"));

  // A flow of its own, of whichever family, takes the miss flow's place.
  const Translation second =
      translator_.add(flows("table=9,ipv6,actions=output:1\n"));
  ASSERT_EQ(second.updates.size(), 2u);
  EXPECT_TRUE(isMessage(second.updates[0], "tableId: 9 deletes{flowId:3}"));
  EXPECT_EQ(second.updates[1].flowtype(), quil::pb::OPENFLOW_TYPE_IPV6);
  EXPECT_EQ(second.updates[1].adds_size(), 1);
  std::vector<bool> misses;
  for (const InstalledFlow* flow : translator_.installed()) {
    misses.push_back(flow->isTableMiss);
  }
  EXPECT_EQ(misses, (std::vector<bool>{false, true, false}));

  const Translation third =
      translator_.add(flows("table=9,tcp,actions=output:1\n"));
  ASSERT_EQ(third.updates.size(), 1u);
  EXPECT_EQ(third.updates[0].deletes_size(), 0) << "it is gone already";
  EXPECT_EQ(third.updates[0].adds_size(), 1);
}

TEST_F(Translator, DropsEverythingWithoutAnyFlow) {
  const Translation translation = translator_.add({});
  ASSERT_EQ(translation.updates.size(), 1u);
  EXPECT_TRUE(isMessage(translation.updates[0],
                        "tableId: 0 adds{action{fields{setOutputDrop:true}} "
                        "flowId:1 priority:1 packetCounterId:1 "
                        "byteCounterId:2}"));
}

TEST(TranslatorLimits, RefusesMoreCopiesThanTheModuleHolds) {
  SwitchPorts ports;
  for (uint16_t port = 1; port <= 64; port++) ports.push_back(port);
  IdAllocator ids;
  FlowTranslator translator(ports, &ids);
  const Translation refused = translator.add(
      flows("actions=drop\nip,actions=flood,output:1\narp,actions=all\n"
            "ipv6,actions=all,flood\n"));
  EXPECT_EQ(texts(refused.refusals),
            (std::vector<std::string>{
                "flows.txt:2: sends 65 copies; the module's output list holds "
                "64",
                "flows.txt:4: sends 128 copies; the module's output list "
                "holds 64"}));
  EXPECT_TRUE(refused.updates.empty());
  EXPECT_TRUE(translator.installed().empty());

  const Translation taken = translator.add(flows("actions=flood\n"));
  ASSERT_TRUE(taken.ok());
  EXPECT_EQ(taken.updates[0].adds(0).flowid(), 1u);
  EXPECT_EQ(taken.updates[0].adds(0).action().values().ogate_size(), 64);
}

TEST(IdAllocator, LeavesReservedNumbersAlone) {
  IdAllocator ids;
  ids.reserveFlowId(1);
  ids.reserveFlowId(3);
  ids.reserveCounter(2);
  ids.reserveCounter(100);
  EXPECT_EQ(ids.takeFlowId(), 2u);
  EXPECT_EQ(ids.takeFlowId(), 4u);
  EXPECT_EQ(ids.takeCounter(), 1u);
  EXPECT_EQ(ids.takeCounter(), 3u);
  EXPECT_EQ(ids.numCounters(), 101u);
}

TEST(UpdateBatch, SplitsAnUpdateThatIsTooLarge) {
  UpdateBatch batch(2);
  InstalledRule rule;
  for (rule.flowId = 1; rule.flowId <= 5; rule.flowId++) {
    batch.put(4, rule, dropAction());
  }
  rule.flowId = 9;
  batch.remove(4, rule);
  const std::vector<TableUpdate> updates = batch.take();
  ASSERT_EQ(updates.size(), 3u);
  EXPECT_EQ(updates[0].adds_size(), 2);
  EXPECT_EQ(updates[1].adds_size(), 2);
  EXPECT_EQ(updates[2].adds_size(), 1);
  EXPECT_EQ(updates[2].adds(0).flowid(), 5u);
  EXPECT_EQ(updates[0].deletes_size() + updates[1].deletes_size(), 0);
  ASSERT_EQ(updates[2].deletes_size(), 1);
  EXPECT_EQ(updates[2].deletes(0).flowid(), 9u);
  for (const TableUpdate& update : updates) EXPECT_EQ(update.tableid(), 4u);
  EXPECT_TRUE(batch.take().empty());
}

TEST(UpdateBatch, KeepsTheLastWordAboutARule) {
  UpdateBatch batch;
  InstalledRule rule;
  rule.flowId = 1;
  batch.put(0, rule, dropAction());
  batch.remove(0, rule);
  rule.flowId = 2;
  batch.remove(0, rule);
  batch.put(0, rule, dropAction());
  const std::vector<TableUpdate> updates = batch.take();
  ASSERT_EQ(updates.size(), 1u);
  ASSERT_EQ(updates[0].adds_size(), 1);
  EXPECT_EQ(updates[0].adds(0).flowid(), 2u);
  ASSERT_EQ(updates[0].deletes_size(), 1);
  EXPECT_EQ(updates[0].deletes(0).flowid(), 1u);
}

TEST(PortsNamedBy, ListsInPortsAndOutputsOnce) {
  EXPECT_EQ(portsNamedBy(flows("in_port=9,actions=output:4,output:2\n"
                               "actions=output:4,flood,in_port,controller\n")),
            (SwitchPorts{2, 4, 9}));
}

}  // namespace
}  // namespace ofswitch
