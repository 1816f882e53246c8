// SPDX-License-Identifier: BSD-3-Clause
//
// Actions that the module does not have, and lists whose order it cannot
// keep: each with its whole sentence.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

struct RefusalCase {
  const char* line;
  const char* reason;
};

void PrintTo(const RefusalCase& row, std::ostream* out) { *out << row.line; }

const RefusalCase kCases[] = {
    {"ip", "no actions; write actions=drop for a flow that drops"},
    {"ip,reactions=drop",
     "unknown field \"reactions\", did you mean \"actions\"?"},
    // Unknown words, wrong values.
    {"actions=otput:1", "unknown action \"otput\", did you mean \"output\"?"},
    {"actions=go_to_table:1",
     "unknown action \"go_to_table\", did you mean \"goto_table\"?"},
    {"actions=frobnicate", "unknown action \"frobnicate\""},
    {"actions=axyz", "unknown action \"axyz\""},
    {"actions=output", "output: needs a value, output:VALUE"},
    {"actions=strip_vlan:1", "strip_vlan:1: takes no value"},
    {"actions=drop:", "drop:: takes no value"},
    {"actions=output:0", "output:0: ports are numbers from 1 to 8191"},
    {"actions=8192", "8192: ports are numbers from 1 to 8191"},
    {"actions=output:eth0", "output:eth0: ports are numbers from 1 to 8191"},
    {"actions=output(port=1,max_len=64)",
     "output(port=1,max_len=64): packets are not cut short here; write "
     "output:PORT"},
    {"actions=output:reg0",
     "output:reg0: the module has no registers; write output:PORT"},
    {"actions=output:NXM_NX_REG0[16..31]",
     "output:NXM_NX_REG0[16..31]: the module has no registers; write "
     "output:PORT"},
    {"actions=mod_dl_dst:1:2:3",
     "mod_dl_dst:1:2:3: \"1:2:3\" is not a MAC address"},
    {"actions=mod_vlan_vid:4096,1", "mod_vlan_vid:4096: 4096 is above 4095"},
    {"actions=mod_vlan_pcp:8,1", "mod_vlan_pcp:8: 8 is above 7"},
    {"ip,actions=mod_nw_dst:10.0.0,1",
     "mod_nw_dst:10.0.0: \"10.0.0\" is not an IPv4 address"},
    {"tcp,actions=mod_tp_dst:65536,1",
     "mod_tp_dst:65536: 65536 is above 65535"},
    {"ip,actions=mod_nw_ecn:4,1", "mod_nw_ecn:4: 4 is above 3"},
    {"ip,actions=mod_nw_tos:5,1",
     "mod_nw_tos:5: the low two bits are the ECN field; write "
     "mod_nw_tos:4,mod_nw_ecn:1"},
    {"actions=push_vlan:0x88a8,1",
     "push_vlan:0x88a8: the module pushes 802.1Q tags only; write "
     "push_vlan:0x8100"},
    {"actions=output:1,(", "(: \"(\" without \")\""},
    // Prerequisites.
    {"ipv6,actions=mod_nw_src:10.0.0.1,1",
     "mod_nw_src:10.0.0.1: the flow matches no IPv4 packet"},
    {"arp,actions=mod_nw_dst:10.0.0.1,1",
     "mod_nw_dst:10.0.0.1: the flow matches no IPv4 packet"},
    {"arp,actions=dec_ttl,1", "dec_ttl: the flow matches no IP packet"},
    {"actions=mod_nw_tos:4,1", "mod_nw_tos:4: needs ip or ipv6 in the match"},
    {"arp,actions=mod_nw_ecn:1,1",
     "mod_nw_ecn:1: needs ip or ipv6 in the match"},
    {"ip,actions=mod_tp_src:4,1",
     "mod_tp_src:4: needs tcp, udp, tcp6 or udp6 in the match"},
    {"sctp,actions=mod_tp_src:4,1",
     "mod_tp_src:4: the module rewrites the ports of TCP and UDP only"},
    // set_field.
    {"actions=set_field:1,1", "set_field:1: write set_field:VALUE->FIELD"},
    {"actions=set_field:1->vlan_vdi,1",
     "set_field:1->vlan_vdi: cannot set \"vlan_vdi\", did you mean "
     "\"vlan_vid\"?"},
    {"actions=set_field:0:0:0:0:0:1/0:0:0:0:0:1->eth_dst,1",
     "set_field:0:0:0:0:0:1/0:0:0:0:0:1->eth_dst: the module sets the whole "
     "field; write the value without a mask"},
    {"actions=set_field:10.0.0.1->nw_dst,1",
     "set_field:10.0.0.1->nw_dst: needs ip in the match"},
    {"tcp,actions=set_field:80->udp_dst,1",
     "set_field:80->udp_dst: needs udp or udp6 in the match"},
    {"udp,actions=set_field:80->tcp_src,1",
     "set_field:80->tcp_src: needs tcp or tcp6 in the match"},
    {"ip,actions=set_field:80->tp_src,1",
     "set_field:80->tp_src: needs tcp, udp, tcp6 or udp6 in the match"},
    {"actions=set_field:4->ip_dscp,1",
     "set_field:4->ip_dscp: needs ip or ipv6 in the match"},
    {"ip,actions=set_field:64->ip_dscp,1",
     "set_field:64->ip_dscp: 64 is above 63"},
    {"ip,actions=set_field:5->nw_tos,1",
     "set_field:5->nw_tos: the low two bits are the ECN field, set by "
     "nw_ecn"},
    {"udp,actions=set_field:8->icmp_type,1",
     "set_field:8->icmp_type: needs icmp or icmp6 in the match"},
    {"icmp,actions=set_field:8->icmpv6_code,1",
     "set_field:8->icmpv6_code: needs icmp6 in the match"},
    {"ipv6,actions=set_field:::1->ipv6_dst,1",
     "set_field:::1->ipv6_dst: the module does not rewrite IPv6 addresses"},
    {"ip,actions=set_field:9->nw_ttl,1",
     "set_field:9->nw_ttl: the module only decrements the TTL; write "
     "dec_ttl"},
    {"actions=set_field:9->metadata,1",
     "set_field:9->metadata: the metadata of a packet carries its in-port "
     "here"},
    {"arp,actions=set_field:2:0:0:0:0:1->arp_sha,1",
     "set_field:2:0:0:0:0:1->arp_sha: the module does not rewrite ARP"},
    {"arp,actions=set_field:2:0:0:0:0:1->arp_tha,1",
     "set_field:2:0:0:0:0:1->arp_tha: the module does not rewrite ARP"},
    {"actions=set_field:9->tunnel_id,1",
     "set_field:9->tunnel_id: the module has no tunnels"},
    {"actions=set_field:9->pkt_mark,1",
     "set_field:9->pkt_mark: packets carry no mark here"},
    {"actions=set_field:9->reg3,1",
     "set_field:9->reg3: the module has no registers"},
    {"actions=set_field:9->vlan_tci,1",
     "set_field:9->vlan_tci: write mod_vlan_vid:VID and "
     "mod_vlan_pcp:PRIORITY"},
    {"actions=set_field:4106->vlan_vid,1",
     "set_field:4106->vlan_vid: needs a VLAN tag in the match (dl_vlan=VID); "
     "write mod_vlan_vid:VID to tag untagged frames too"},
    {"vlan_tci=0/0xefff,actions=set_field:3->vlan_pcp,1",
     "set_field:3->vlan_pcp: needs a VLAN tag in the match (dl_vlan=VID); "
     "write mod_vlan_vid:VID,mod_vlan_pcp:PRIORITY to tag untagged frames "
     "too"},
    // The controller.
    {"actions=controller:128",
     "controller:128: the controller always gets the whole frame here; write "
     "controller(max_len=65535)"},
    {"actions=output:controller(max_len=9)",
     "controller(max_len=9): the controller always gets the whole frame "
     "here; write controller(max_len=65535)"},
    {"actions=controller(reason=because)",
     "controller(reason=because): the reason is action, no_match or "
     "invalid_ttl"},
    {"actions=controller(id=7)",
     "controller(id=7): there is one controller here, which knows reason and "
     "max_len only; leave id=7 out"},
    {"actions=controller(pause)",
     "controller(pause): there is one controller here, which knows reason "
     "and max_len only; leave pause out"},
    {"actions=dec_ttl(1,2),1",
     "dec_ttl(1,2): packets whose TTL expires go to no controller here; "
     "write dec_ttl"},
    // Where packets go.
    {"actions=goto_table:32",
     "goto_table:32: tables are numbers from 0 to "
     "31"},
    {"actions=goto_table:next",
     "goto_table:next: tables are numbers from 0 to 31"},
    {"table=3,actions=goto_table:3",
     "goto_table:3: packets go to later tables only, and this is table 3"},
    {"table=3,actions=resubmit(,1)",
     "resubmit(,1): packets go to later tables only, and this is table 3"},
    {"actions=resubmit(2,1)",
     "resubmit(2,1): the in-port of a packet does not change; write "
     "goto_table:TABLE"},
    {"actions=resubmit:2",
     "resubmit:2: the in-port of a packet does not change; write "
     "goto_table:TABLE"},
    {"actions=goto_table:3,output:1",
     "output:1: nothing may follow goto_table"},
    {"actions=resubmit(,3),output:1",
     "output:1: nothing may follow goto_table"},
    {"actions=goto_table:3,goto_table:4",
     "goto_table:4: nothing may follow goto_table"},
    {"actions=output:1,drop", "drop: no other action may stand beside it"},
    {"actions=in_port,in_port", "in_port: the module sends back once only"},
    {"actions=controller,controller:65535",
     "controller:65535: the module sends to the controller once only"},
    // Order.
    {"actions=output:1,mod_dl_dst:2:0:0:0:0:2,output:2",
     "output:2: the module does all rewrites before the first output, so "
     "output:1 would send the rewritten packet too; move what follows "
     "output:1 to a later table (goto_table)"},
    {"actions=controller,dec_ttl,goto_table:2",
     "goto_table:2: the module does all rewrites before the first output, so "
     "controller would send the rewritten packet too; move what follows "
     "controller to a later table (goto_table)"},
    {"ip,nw_ecn=0,actions=flood,mod_nw_tos:4,in_port",
     "in_port: the module does all rewrites before the first output, so "
     "flood would send the rewritten packet too; move what follows flood to "
     "a later table (goto_table)"},
    {"actions=apply_actions(output:1,strip_vlan),output:2",
     "output:2: the module does all rewrites before the first output, so "
     "output:1 would send the rewritten packet too; move what follows "
     "output:1 to a later table (goto_table)"},
    {"actions=apply_actions(apply_actions(output:1))",
     "apply_actions(output:1): stands inside apply_actions; write its actions "
     "there"},
    {"actions=mod_vlan_vid:5,strip_vlan,1",
     "strip_vlan: the module removes the tag before it writes one; put "
     "strip_vlan first, or leave the VLAN rewrites before it out"},
    {"actions=strip_vlan,pop_vlan,1",
     "pop_vlan: the module removes one tag only"},
    {"actions=push_vlan:0x8100,set_field:4106->vlan_vid,1",
     "push_vlan:0x8100: the module keeps one tag, and the frame may have one "
     "already; write mod_vlan_vid:VID to tag an untagged frame"},
    {"actions=strip_vlan,push_vlan:0x8100,1",
     "push_vlan:0x8100: the module keeps one tag, and the frame may have one "
     "already; write mod_vlan_vid:VID to tag an untagged frame"},
    {"dl_vlan=5,actions=push_vlan:0x8100,1",
     "push_vlan:0x8100: the module keeps one tag, and the frame may have one "
     "already; write mod_vlan_vid:VID to tag an untagged frame"},
    {"actions=mod_vlan_pcp:3,output:1",
     "mod_vlan_pcp:3: on an untagged frame the module sets no priority; "
     "match a VLAN tag (dl_vlan=VID), or add mod_vlan_vid:VID"},
    {"dl_vlan=5,actions=strip_vlan,mod_vlan_pcp:3,output:1",
     "mod_vlan_pcp:3: on an untagged frame the module sets no priority; "
     "match a VLAN tag (dl_vlan=VID), or add mod_vlan_vid:VID"},
    {"ip,actions=mod_nw_tos:4,1",
     "mod_nw_tos:4: the module writes DSCP and ECN together; match nw_ecn "
     "too, or add mod_nw_ecn:ECN"},
    {"ip,actions=set_field:1->nw_ecn,1",
     "set_field:1->nw_ecn: the module writes DSCP and ECN together; match "
     "nw_tos too, or add mod_nw_tos:TOS"},
    {"ip,actions=dec_ttl,dec_ttl,1",
     "dec_ttl: the module decrements once only"},
    {"actions=strip_vlan,dec_ttl,1",
     "dec_ttl: strip_vlan may uncover an IP header that was behind two tags; "
     "match ip or ipv6"},
    {"actions=strip_vlan,mod_nw_src:1.2.3.4,1",
     "mod_nw_src:1.2.3.4: strip_vlan may uncover an IP header that was behind "
     "two tags; match ip or ipv6"},
    {"actions=strip_vlan,mod_nw_dst:1.2.3.4,1",
     "mod_nw_dst:1.2.3.4: strip_vlan may uncover an IP header that was behind "
     "two tags; match ip or ipv6"},
    {"actions=dec_ttl,strip_vlan,1",
     "strip_vlan: strip_vlan may uncover an IP header that was behind two "
     "tags; match ip or ipv6"},
    {"actions=mod_nw_dst:1.2.3.4,strip_vlan,1",
     "strip_vlan: strip_vlan may uncover an IP header that was behind two "
     "tags; match ip or ipv6"},
    {"actions=mod_nw_src:1.2.3.4,strip_vlan,1",
     "strip_vlan: strip_vlan may uncover an IP header that was behind two "
     "tags; match ip or ipv6"},
    // Actions of other switches.
    {"actions=normal",
     "normal: the module does not learn addresses; write flood, or "
     "output:PORT for each known address"},
    {"actions=output:NORMAL",
     "output:NORMAL: the module does not learn addresses; write flood, or "
     "output:PORT for each known address"},
    {"actions=LOCAL", "LOCAL: the switch has no port of its own host"},
    {"actions=group:1",
     "group:1: the module has no groups; write the outputs of the bucket"},
    {"actions=meter:1,output:1", "meter:1: the module has no meters"},
    {"actions=enqueue:1:2",
     "enqueue:1:2: the module has no queues; write output:PORT"},
    {"actions=learn(table=1,priority=5)",
     "learn(table=1,priority=5): the module does not install flows by "
     "itself"},
    {"actions=load:5->NXM_OF_VLAN_TCI[]",
     "load:5->NXM_OF_VLAN_TCI[]: write set_field:VALUE->FIELD"},
    {"actions=move:NXM_OF_ETH_SRC[]->NXM_OF_ETH_DST[]",
     "move:NXM_OF_ETH_SRC[]->NXM_OF_ETH_DST[]: the module writes constants "
     "only; write set_field:VALUE->FIELD"},
    {"actions=ct(commit)",
     "ct(commit): the module does not track "
     "connections"},
    {"actions=write_actions(output:1)",
     "write_actions(output:1): the module has no action set; write the "
     "actions themselves"},
    {"actions=write_metadata:5",
     "write_metadata:5: the metadata of a packet carries its in-port here; "
     "use one table for each value"},
    {"ip,actions=mod_nw_ttl:5,1",
     "mod_nw_ttl:5: the module only decrements the TTL; write dec_ttl"},
    {"actions=set_mpls_label:5,1",
     "set_mpls_label:5: the module does not rewrite MPLS labels"},
};

class ActionRefusal : public testing::TestWithParam<RefusalCase> {};

TEST_P(ActionRefusal, SaysWhy) {
  EXPECT_EQ(refusalOf(GetParam().line), GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(Actions, ActionRefusal, testing::ValuesIn(kCases));

// Such a line overran the stack.
TEST(ApplyActions, DeepNestingIsRefusedAtOnce) {
  std::string line = "actions=";
  constexpr int kDepth = 70000;
  for (int i = 0; i < kDepth; i++) line += "apply_actions(";
  line += "drop" + std::string(kDepth, ')');
  EXPECT_THAT(refusalOf(line), testing::HasSubstr("inside apply_actions"));
}

}  // namespace
}  // namespace ofswitch
