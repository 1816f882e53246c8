// SPDX-License-Identifier: BSD-3-Clause
//
// Words that say the same as others, or nothing at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <sstream>
#include <string>

#include "switch/flow/command_checks.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/id_allocator.h"
#include "switch/flow/quote.h"
#include "switch/flow/update_batch.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

struct Spelling {
  const char* line;
  const char* same;
};

void PrintTo(const Spelling& row, std::ostream* out) { *out << row.line; }

const Spelling kSpellings[] = {
    // A mask of no bits.
    {"dl_type=0/0,actions=1", "actions=1"},
    {"dl_vlan_pcp=0/0,actions=1", "actions=1"},
    {"ip,nw_tos=0/0,actions=1", "ip,actions=1"},
    {"ip,ip_dscp=0/0,actions=1", "ip,actions=1"},
    {"ip,nw_ecn=0/0,actions=1", "ip,actions=1"},
    {"ip,nw_ttl=0/0,actions=1", "ip,actions=1"},
    {"icmp,icmp_type=0/0,actions=1", "icmp,actions=1"},
    {"tcp,tp_src=0/0,tp_dst=0/0,actions=1", "tcp,actions=1"},
    {"ip,nw_src=0.0.0.0/0,nw_dst=0.0.0.0/0.0.0.0,actions=1", "ip,actions=1"},
    {"ipv6,ipv6_src=::/0,actions=1", "ipv6,actions=1"},
    // Stars.
    {"ip,nw_src=*,nw_dst=*,actions=1", "ip,actions=1"},
    // A mask of all bits.
    {"dl_type=0x0800/0xffff,actions=1", "ip,actions=1"},
    {"ip,nw_ecn=2/3,actions=1", "ip,nw_ecn=2,actions=1"},
    {"ip,ip_dscp=46/63,actions=1", "ip,nw_tos=184,actions=1"},
    {"dl_vlan=5,dl_vlan_pcp=3/7,actions=1",
     "dl_vlan=5,dl_vlan_pcp=3,actions=1"},
    // The presence of a tag is not asked for.
    {"vlan_vid=5/0xfff,actions=1", "vlan_tci=5/0xfff,actions=1"},
    // Numbers.
    {"ip,nw_ttl=0X40,actions=1", "ip,nw_ttl=64,actions=1"},
    {"ip,nw_ttl=0100,actions=1", "ip,nw_ttl=64,actions=1"},
    {"tcp,tp_dst=0,actions=1", "tcp,tp_dst=00,actions=1"},
    // Ports that have a name.
    {"actions=output:in_port", "actions=in_port"},
    {"actions=output:all", "actions=all"},
    {"actions=output:flood", "actions=flood"},
    {"actions=output:controller", "actions=controller"},
    {"actions=output:controller:65535", "actions=controller"},
    {"actions=controller(reason=action,max_len=65535,id=0)",
     "actions=controller"},
    {"priority=0,actions=controller",
     "priority=0,actions=controller(reason=no_match)"},
    {"priority=1,actions=controller",
     "priority=1,actions=controller(reason=action)"},
    {"priority=0,ip,actions=controller",
     "priority=0,ip,actions=controller(reason=action)"},
    // Fields that the two protocols of a layer share.
    {"udp,actions=set_field:80->tp_dst,1", "udp,actions=mod_tp_dst:80,1"},
    {"tcp6,actions=set_field:80->tp_src,1", "tcp6,actions=mod_tp_src:80,1"},
    {"icmp6,actions=set_field:3->icmp_type,1",
     "icmp6,actions=set_field:3->icmpv6_type,1"},
    {"icmp6,actions=set_field:3->icmp_code,1",
     "icmp6,actions=set_field:3->icmpv6_code,1"},
    {"actions=resubmit(,7)", "actions=goto_table:7"},
    {"ip,action=1", "ip,actions=1"},
    // Masks that are prefixes of any length.
    {"ipv6,ipv6_dst=2001:db8::/ffff:ffff:ffff:ffff:ffff::,actions=1",
     "ipv6,ipv6_dst=2001:db8::/80,actions=1"},
    {"ipv6,ipv6_dst=2001:db8::/ffff:ffff:ffff:ffff::,actions=1",
     "ipv6,ipv6_dst=2001:db8::/64,actions=1"},
    {"ipv6,ipv6_dst=2001:db8::/ffff:ffff::,actions=1",
     "ipv6,ipv6_dst=2001:db8::/32,actions=1"},
    {"ip,nw_dst=10.0.0.0/255.0.0.0,actions=1",
     "ip,nw_dst=10.0.0.0/8,actions=1"},
};

class SameFlow : public testing::TestWithParam<Spelling> {};

TEST_P(SameFlow, HasOneNormalForm) {
  const Flow flow = FlowReader().readLine(GetParam().line);
  const Flow same = FlowReader().readLine(GetParam().same);
  EXPECT_EQ(flowText(flow), flowText(same));
  EXPECT_TRUE(flow == same);
}

INSTANTIATE_TEST_SUITE_P(Spellings, SameFlow, testing::ValuesIn(kSpellings));

// Each line differs from the first in one thing that counts.
TEST(Flows, AreEqualWhenTheyDoTheSame) {
  const FlowReader reader({.allowTimeouts = true});
  const char* kFirst =
      "table=1,priority=5,cookie=7,idle_timeout=8,hard_timeout=9,tcp,"
      "tp_dst=80,actions=dec_ttl,output:2";
  Flow first = reader.readLine(kFirst);
  for (const char* other :
       {"table=2,priority=5,cookie=7,idle_timeout=8,hard_timeout=9,tcp,"
        "tp_dst=80,actions=dec_ttl,output:2",
        "table=1,priority=6,cookie=7,idle_timeout=8,hard_timeout=9,tcp,"
        "tp_dst=80,actions=dec_ttl,output:2",
        "table=1,priority=5,cookie=8,idle_timeout=8,hard_timeout=9,tcp,"
        "tp_dst=80,actions=dec_ttl,output:2",
        "table=1,priority=5,cookie=7,idle_timeout=9,hard_timeout=9,tcp,"
        "tp_dst=80,actions=dec_ttl,output:2",
        "table=1,priority=5,cookie=7,idle_timeout=8,hard_timeout=8,tcp,"
        "tp_dst=80,actions=dec_ttl,output:2",
        "table=1,priority=5,cookie=7,idle_timeout=8,hard_timeout=9,tcp,"
        "tp_dst=81,actions=dec_ttl,output:2",
        "table=1,priority=5,cookie=7,idle_timeout=8,hard_timeout=9,tcp,"
        "tp_dst=80,actions=output:2"}) {
    EXPECT_FALSE(first == reader.readLine(other)) << other;
  }
  Flow elsewhere = reader.readLine(kFirst);
  elsewhere.file = "other.txt";
  elsewhere.line = 9;
  elsewhere.text = "something else";
  EXPECT_TRUE(first == elsewhere);
}

struct RefusalCase {
  const char* line;
  const char* reason;
};

void PrintTo(const RefusalCase& row, std::ostream* out) { *out << row.line; }

const RefusalCase kRefusals[] = {
    {"actions=resubmit(,)",
     "resubmit(,): the in-port of a packet does not change; write "
     "goto_table:TABLE"},
    {"actions=resubmit:1",
     "resubmit:1: the in-port of a packet does not change; write "
     "goto_table:TABLE"},
    {"actions=output:controllers",
     "output:controllers: ports are numbers from 1 to 8191"},
    {"vlan_tci=0x0005/0x1fff,actions=drop",
     "vlan_tci=0x0005/0x1fff: matches no frame, an untagged frame has no VID "
     "and no priority; write dl_vlan=VID for a tagged one"},
    {"rarp,nw_src=10.0.0.1,actions=drop",
     "nw_src=10.0.0.1: the module reads only the ARP target address; write "
     "arp_tpa=ADDRESS"},
    {"rarp,nw_proto=3,actions=drop",
     "nw_proto=3: the module does not read the ARP operation"},
    {"ip,actions=set_field:1->,1", "set_field:1->: cannot set \"\""},
    {"actions=output:LOCAL",
     "output:LOCAL: the switch has no port of its own host"},
    {"actions=output:none", "output:none: write drop"},
    {"actions=output:table",
     "output:table: packets cannot start again; write goto_table:TABLE"},
    {"actions=set_field:1->xreg1",
     "set_field:1->xreg1: the module has no registers"},
    {"actions=set_field:1->xxreg1",
     "set_field:1->xxreg1: the module has no registers"},
    {"ip,actions=set_field:80->tp_dst,1",
     "set_field:80->tp_dst: needs tcp, udp, tcp6 or udp6 in the match"},
    {"tcp,actions=set_field:8->icmp_type,1",
     "set_field:8->icmp_type: needs icmp or icmp6 in the match"},
    {"tcp,tcp_flags=syn-ack,actions=drop",
     "tcp_flags=syn-ack: unknown TCP flag \"syn-ack\""},
    {"tcp,tcp_flags=+syn|ack,actions=drop",
     "tcp_flags=+syn|ack: unknown TCP flag \"syn|ack\""},
    {"tcp,tcp_flags=+ns,actions=drop",
     "tcp_flags=+ns: the module reads the flags fin to cwr, not the four "
     "above them; leave them out"},
    {"tcp,tcp_flags=+syn-syn,actions=drop",
     "tcp_flags=+syn-syn: a flag stands there twice"},
};

class RefusedSpelling : public testing::TestWithParam<RefusalCase> {};

TEST_P(RefusedSpelling, SaysWhy) {
  EXPECT_EQ(refusalOf(GetParam().line), GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(Spellings, RefusedSpelling,
                         testing::ValuesIn(kRefusals));

TEST(FlowReader, TakesAsManyFlowsAsItMay) {
  std::istringstream in("actions=1\n# more\nactions=2\n\nactions=3\nx\n");
  const FlowFile file = FlowReader({.mostFlows = 2}).read(in, "f");
  EXPECT_THAT(file.flows, testing::SizeIs(2));
  ASSERT_THAT(file.refusals, testing::SizeIs(1));
  EXPECT_EQ(file.refusals[0].text(), "f:5: at most 2 flows are taken at once");
}

TEST(FlowReader, TakesLinesAsLongAsTheyMayBe) {
  std::istringstream in("actions=12\nactions=123\nactions=13\n");
  const FlowFile file = FlowReader({.longestLine = 10}).read(in, "f");
  EXPECT_THAT(file.flows, testing::SizeIs(2));
  ASSERT_THAT(file.refusals, testing::SizeIs(1));
  EXPECT_EQ(file.refusals[0].text(),
            "f:2: the line has 11 characters, at most 10 are taken");
}

TEST(FlowReader, StopsWhenEnoughIsWrong) {
  std::istringstream in("x\nactions=1\ny\nz\n");
  const FlowFile file = FlowReader({.mostRefusals = 2}).read(in, "f");
  ASSERT_THAT(file.refusals, testing::SizeIs(3));
  EXPECT_EQ(file.refusals[1].text(),
            "f:3: no actions; write actions=drop for a flow that drops");
  EXPECT_EQ(file.refusals[2].text(),
            "f:3: too many lines are refused; the rest is not read");
}

TEST(FlowReader, HasRoomForWhatPeopleWrite) {
  EXPECT_EQ(FlowReaderOptions().mostFlows, 4'000'000u);
  std::string text;
  for (int i = 0; i < 100'001; i++) text += "x\n";
  std::istringstream in(text);
  const FlowFile file = FlowReader().read(in, "f");
  ASSERT_THAT(file.refusals, testing::SizeIs(100'001));
  EXPECT_EQ(file.refusals.back().text(),
            "f:100000: too many lines are refused; the rest is not read");
}

TEST(CutText, CutsBetweenCharacters) {
  EXPECT_EQ(cutText("abc", 3), "abc");
  EXPECT_EQ(cutText("abcd", 3), "abc...");
  EXPECT_EQ(cutText("a\u00e4b", 2), "a...");
  EXPECT_EQ(cutText("a\u00e4b", 3), "a\u00e4...");
  EXPECT_EQ(cutText("\U0001f600x", 3), "...");
  EXPECT_EQ(cutText("x", 0), "...");
  EXPECT_EQ(cutText("", 0), "");
}

TEST(Updates, HaveAMillionFlowsAtMost) {
  quil::pb::OpenFlowUpdateFlowsArg update;
  for (int i = 0; i < kMaxAddsPerUpdate; i++) update.add_adds();
  checkUpdate(update);
  update.add_adds();
  try {
    checkUpdate(update);
    ADD_FAILURE() << "1,000,001 flows are taken";
  } catch (const Refused& refused) {
    EXPECT_STREQ(refused.what(),
                 "adds: 1000001 flows, at most 1000000 in one command");
  }
}

TEST(IdAllocator, HandsOutNothingTwice) {
  IdAllocator ids;
  EXPECT_EQ(ids.numCounters(), 1u);
  ids.reserveFlowId(1);
  ids.reserveFlowId(2);
  ids.reserveFlowId(4);
  EXPECT_EQ(ids.takeFlowId(), 3u);
  EXPECT_EQ(ids.takeFlowId(), 5u);
  ids.reserveCounter(2);
  ids.reserveCounter(1);
  EXPECT_EQ(ids.numCounters(), 3u);
  EXPECT_EQ(ids.takeCounter(), 3u);
  EXPECT_EQ(ids.takeCounter(), 4u);
  EXPECT_EQ(ids.numCounters(), 5u);
}

}  // namespace
}  // namespace ofswitch
