// SPDX-License-Identifier: BSD-3-Clause
//
// How a flow's fields are told beside a packet's that does not meet them.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "switch/flow/flow_reader.h"
#include "switch/flow/module_rules.h"
#include "switch/trace/key_fields.h"
#include "switch/trace/near_misses.h"
#include "switch/trace/packet_key.h"
#include "tests/support/frame.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::ip4;
using openflow_test::ip6;
using Differences = std::vector<FieldDifference>;

Flow flowOf(const std::string& match) {
  return FlowReader().readLine(match + ",actions=drop");
}

Match keyOf(const Bytes& frame) {
  return packetKey(std::string(frame.begin(), frame.end()), 3);
}

const Frame kTcp =
    Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(1000, 80);
const Frame kTcp6 =
    Frame::eth().ipv6(ip6("2001:db8::1"), ip6("2001:db8::2")).tcp(1000, 80);

struct Row {
  const char* match;
  Frame frame;
  Differences differences;
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.match; }

const Row kRows[] = {
    {"in_port=3,tcp,tp_dst=80", kTcp, {}},
    {"dl_src=06:00:00:00:00:00/ff:00:00:00:00:00",
     kTcp,
     {{"dl_src", "06:00:00:00:00:00/ff:00:00:00:00:00", "02:00:00:00:00:05"}}},
    {"dl_dst=02:00:00:00:00:0e",
     kTcp,
     {{"dl_dst", "02:00:00:00:00:0e", "02:00:00:00:00:0d"}}},
    {"ip,nw_src=10.1.0.0/16", kTcp, {{"nw_src", "10.1.0.0/16", "10.0.0.1"}}},
    {"ip,nw_src=10.0.0.2/255.0.0.255",
     kTcp,
     {{"nw_src", "10.0.0.2/255.0.0.255", "10.0.0.1"}}},
    {"ipv6,ipv6_dst=2002::/16",
     kTcp6,
     {{"ipv6_dst", "2002::/16", "2001:db8::2"}}},
    {"ipv6,ipv6_dst=::3/::ff",
     kTcp6,
     {{"ipv6_dst", "::3/::ff", "2001:db8::2"}}},
    {"ip,nw_ttl=0/0xc0", kTcp, {{"nw_ttl", "0x0/0xc0", "64"}}},
    {"ip,nw_tos=184,nw_ecn=1",
     kTcp,
     {{"nw_tos", "184", "0"}, {"nw_ecn", "1", "0"}}},
    {"tcp,tcp_flags=+syn-ack", kTcp, {{"tcp_flags", "+syn-ack", "+psh+ack"}}},
    {"tcp,tcp_flags=0x02/0xff", kTcp, {{"tcp_flags", "+syn", "+psh+ack"}}},
    {"dl_vlan=5,dl_vlan_pcp=1",
     kTcp,
     {{"dl_vlan", "5", "none"}, {"dl_vlan_pcp", "1", "none"}}},
    {"vlan_tci=0x0004/0x0ffc",
     Frame::eth().vlan(9).ipv4(1, 2).udp(3, 4),
     {{"dl_vlan", "0x4/0xffc", "9"}}},
    {"udp,tp_src=7,tp_dst=8",
     Frame::eth().ipv4(1, 2).udp(3, 4),
     {{"tp_src", "7", "3"}, {"tp_dst", "8", "4"}}},
    {"icmp6,icmp_type=1,icmp_code=2",
     Frame::eth().ipv6(ip6("::1"), ip6("::2")).icmp(128, 0),
     {{"icmp_type", "1", "128"}, {"icmp_code", "2", "0"}}},
    {"arp,arp_tpa=10.0.0.9",
     Frame::eth().arp(1, 0x0a000007),
     {{"arp_tpa", "10.0.0.9", "10.0.0.7"}}},
};

class KeyText : public testing::TestWithParam<Row> {};

TEST_P(KeyText, SaysWhatIsWantedAndFound) {
  const Match match = flowOf(GetParam().match).match;
  const Match key = keyOf(GetParam().frame);
  EXPECT_EQ(differences(match, key), GetParam().differences);
  EXPECT_EQ(countDifferences(match, key),
            static_cast<int>(GetParam().differences.size()));
}

INSTANTIATE_TEST_SUITE_P(Rows, KeyText, testing::ValuesIn(kRows));

// A field that the packet does not have is there no more or not yet.
TEST(KeyText, OfAnotherProtocolIsNone) {
  const Differences all =
      differences(flowOf("udp6,ipv6_src=::1,tp_dst=53").match, keyOf(kTcp));
  EXPECT_EQ(all.at(0), (FieldDifference{"dl_type", "0x86dd", "0x0800"}));
  EXPECT_EQ(all.at(1), (FieldDifference{"ipv6_src", "::1", "none"}));
}

std::vector<std::string> nearest(const std::vector<std::string>& matches) {
  const Match key = keyOf(kTcp);
  NearMisses misses(key);
  for (size_t i = 0; i < matches.size(); i++) {
    auto flow = std::make_shared<InstalledFlow>();
    flow->flow = flowOf(matches[i]);
    flow->rule.priority = flow->flow.priority;
    misses.consider(flow, i);
  }
  auto miss = std::make_shared<InstalledFlow>();
  miss->isTableMiss = true;
  misses.consider(miss, matches.size());
  std::vector<std::string> texts;
  for (const NearMisses::Miss& one : misses.nearest()) {
    texts.push_back(one.flow->flow.text);
  }
  for (std::string& text : texts) text.resize(text.find(",actions"));
  return texts;
}

// Few differences first, then high priorities, then the order of the flows.
TEST(NearMisses, KeepsTheNearestInOrder) {
  using Texts = std::vector<std::string>;
  EXPECT_EQ(nearest({}), Texts());
  EXPECT_EQ(nearest({"priority=9,tcp,tp_dst=81,tp_src=1",
                     "priority=5,tcp,tp_dst=82", "priority=7,tcp,tp_dst=83"}),
            (Texts{"priority=7,tcp,tp_dst=83", "priority=5,tcp,tp_dst=82",
                   "priority=9,tcp,tp_dst=81,tp_src=1"}));
  EXPECT_EQ(
      nearest({"tcp,tp_dst=1", "tcp,tp_dst=2", "tcp,tp_dst=3", "tcp,tp_dst=4"}),
      (Texts{"tcp,tp_dst=1", "tcp,tp_dst=2", "tcp,tp_dst=3"}));
  EXPECT_EQ(nearest({"priority=1,tcp,tp_dst=1", "priority=2,tcp,tp_dst=2",
                     "priority=3,tcp,tp_dst=3", "priority=4,tcp,tp_dst=4"}),
            (Texts{"priority=4,tcp,tp_dst=4", "priority=3,tcp,tp_dst=3",
                   "priority=2,tcp,tp_dst=2"}));
}

}  // namespace
}  // namespace ofswitch
