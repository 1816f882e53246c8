// SPDX-License-Identifier: BSD-3-Clause
//
// Each action in each of its forms, and lists of them: the exact action
// message. The switch has the ports 1, 2 and 3.
#include <gtest/gtest.h>

#include <array>
#include <ostream>
#include <string>

#include "switch/flow/action_plan.h"
#include "switch/flow/encode.h"
#include "switch/flow/flow_printer.h"
#include "tests/switch/flow_texts.h"

namespace ofswitch {
namespace {

struct ActionCase {
  const char* match;
  const char* actions;
  const char* message;
};

void PrintTo(const ActionCase& row, std::ostream* out) {
  *out << row.match << " actions=" << row.actions;
}

const ActionCase kCases[] = {
    // Outputs.
    {"", "", ""},
    {"", "drop", "fields{setOutputDrop:true}"},
    {"", "output:1", "fields{setOutputAll:true} values{ogate:1}"},
    {"", "output:0x10", "fields{setOutputAll:true} values{ogate:16}"},
    {"", "output=8191", "fields{setOutputAll:true} values{ogate:8191}"},
    {"", "3", "fields{setOutputAll:true} values{ogate:3}"},
    {"", "output:2,1,2", "fields{setOutputAll:true} values{ogate:[2,1,2]}"},
    {"", "in_port", "fields{setOutputInPort:true}"},
    {"", "IN_PORT", "fields{setOutputInPort:true}"},
    {"", "output:in_port", "fields{setOutputInPort:true}"},
    {"", "all", "fields{setOutputFlood:true} values{ogate:[1,2,3]}"},
    {"", "FLOOD", "fields{setOutputFlood:true} values{ogate:[1,2,3]}"},
    {"", "output:all,flood",
     "fields{setOutputFlood:true} values{ogate:[1,2,3,1,2,3]}"},
    {"", "output:9,all,output:2",
     "fields{setOutputAll:true} values{ogate:[9,1,2,3,2]}"},
    {"in_port=1", "controller",
     "fields{setOutputController:true} "
     "values{outputControllerTrap:true outputControllerReason:1}"},
    {"in_port=1", "CONTROLLER:65535",
     "fields{setOutputController:true} "
     "values{outputControllerTrap:true outputControllerReason:1}"},
    {"in_port=1", "output:controller",
     "fields{setOutputController:true} "
     "values{outputControllerTrap:true outputControllerReason:1}"},
    {"", "controller(reason=no_match,max_len=65535,id=0)",
     "fields{setOutputController:true} "
     "values{outputControllerTrap:true outputControllerReason:0}"},
    {"", "controller(reason=invalid_ttl)",
     "fields{setOutputController:true} "
     "values{outputControllerTrap:true outputControllerReason:2}"},
    {"priority=0", "controller",
     "fields{setOutputController:true} "
     "values{outputControllerTrap:true outputControllerReason:0}"},
    {"priority=0", "controller(reason=action)",
     "fields{setOutputController:true} "
     "values{outputControllerTrap:true outputControllerReason:1}"},
    {"priority=0,ip", "controller",
     "fields{setOutputController:true} "
     "values{outputControllerTrap:true outputControllerReason:1}"},
    {"", "goto_table:1", "fields{gotoTbl:true} values{nextTbl:1}"},
    {"table=30", "goto_table:31", "fields{gotoTbl:true} values{nextTbl:31}"},
    {"table=3", "resubmit(,4)", "fields{gotoTbl:true} values{nextTbl:4}"},
    {"", "output:1,in_port,controller,goto_table:2",
     "fields{setOutputAll:true setOutputInPort:true "
     "setOutputController:true gotoTbl:true} values{ogate:1 nextTbl:2 "
     "outputControllerTrap:true outputControllerReason:1}"},
    {"", "apply_actions(output:1),apply_actions(output:2)",
     "fields{setOutputAll:true} values{ogate:[1,2]}"},
    {"", "apply_actions(output:1,output:2),goto_table:2",
     "fields{setOutputAll:true gotoTbl:true} values{ogate:[1,2] nextTbl:2}"},
    {"in_port=1", "apply_actions(controller(reason=no_match),in_port),2",
     "fields{setOutputController:true setOutputInPort:true setOutputAll:true} "
     "values{outputControllerTrap:true ogate:2}"},
    {"", "clear_actions,output:1", "fields{setOutputAll:true} values{ogate:1}"},
    // Ethernet rewrites.
    {"", "mod_dl_src:02:00:00:00:00:01,mod_dl_dst:2:0:0:0:0:2,output:1",
     "fields{setEthSrc:true setEthDst:true setOutputAll:true} "
     "values{ethSrc:'\\x02\\0\\0\\0\\0\\x01' ethDst:'\\x02\\0\\0\\0\\0\\x02' "
     "ogate:1}"},
    {"",
     "set_field:02:00:00:00:00:01->eth_src,"
     "set_field:02:00:00:00:00:02->dl_dst,output:1",
     "fields{setEthSrc:true setEthDst:true setOutputAll:true} "
     "values{ethSrc:'\\x02\\0\\0\\0\\0\\x01' ethDst:'\\x02\\0\\0\\0\\0\\x02' "
     "ogate:1}"},
    // The last of repeated rewrites wins.
    {"", "mod_dl_dst:02:00:00:00:00:01,mod_dl_dst:02:00:00:00:00:02,1",
     "fields{setEthDst:true setOutputAll:true} "
     "values{ethDst:'\\x02\\0\\0\\0\\0\\x02' ogate:1}"},
    // VLAN rewrites.
    {"", "mod_vlan_vid:100,output:1",
     "fields{setVlanVid:true setOutputAll:true} values{vlanVid:100 ogate:1}"},
    {"", "mod_vlan_vid:100,mod_vlan_pcp:3,output:1",
     "fields{setVlanVid:true setVlanPcp:true setOutputAll:true} "
     "values{vlanVid:100 vlanPcp:3 ogate:1}"},
    {"", "mod_vlan_pcp:3,mod_vlan_vid:100,output:1",
     "fields{setVlanVid:true setVlanPcp:true setOutputAll:true} "
     "values{vlanVid:100 vlanPcp:3 ogate:1}"},
    {"", "mod_vlan_pcp:3,set_vlan_vid:100,output:1",
     "fields{setVlanVid:true setVlanPcp:true setOutputAll:true} "
     "values{vlanVid:100 vlanPcp:3 ogate:1}"},
    {"dl_vlan=5", "mod_vlan_pcp:3,output:1",
     "fields{setVlanPcp:true setOutputAll:true} values{vlanPcp:3 ogate:1}"},
    {"dl_vlan=5", "set_vlan_vid:6,set_vlan_pcp:3,output:1",
     "fields{setVlanVid:true setVlanPcp:true setOutputAll:true} "
     "values{vlanVid:6 vlanPcp:3 ogate:1}"},
    {"vlan_tci=0x2000/0x2000",
     "set_field:4106->vlan_vid,set_field:7->vlan_pcp,output:1",
     "fields{setVlanVid:true setVlanPcp:true setOutputAll:true} "
     "values{vlanVid:10 vlanPcp:7 ogate:1}"},
    {"dl_vlan=5", "set_field:10->vlan_vid,output:1",
     "fields{setVlanVid:true setOutputAll:true} values{vlanVid:10 ogate:1}"},
    {"", "strip_vlan,output:1",
     "fields{popVlan:true setOutputAll:true} values{ogate:1}"},
    {"", "pop_vlan,mod_vlan_vid:7,output:1",
     "fields{popVlan:true setVlanVid:true setOutputAll:true} "
     "values{vlanVid:7 ogate:1}"},
    // A known Ethernet type behind the tag: after the pop there is none.
    {"ip", "pop_vlan,push_vlan:0x8100,set_field:4103->vlan_vid,output:1",
     "fields{popVlan:true setVlanVid:true setOutputAll:true} "
     "values{vlanVid:7 ogate:1}"},
    {"ip", "pop_vlan,push_vlan:0x8100,output:1",
     "fields{popVlan:true setVlanVid:true setOutputAll:true} "
     "values{vlanVid:0 ogate:1}"},
    {"ip", "pop_vlan,mod_vlan_pcp:5,output:1",
     "fields{popVlan:true setVlanVid:true setVlanPcp:true setOutputAll:true} "
     "values{vlanVid:0 vlanPcp:5 ogate:1}"},
    {"ip", "pop_vlan,mod_vlan_pcp:5,set_field:4103->vlan_vid,output:1",
     "fields{popVlan:true setVlanVid:true setVlanPcp:true setOutputAll:true} "
     "values{vlanVid:7 vlanPcp:5 ogate:1}"},
    // IP rewrites.
    {"ip", "mod_nw_src:10.0.0.1,mod_nw_dst:10.0.0.2,output:1",
     "fields{setIpv4Src:true setIpv4Dst:true setOutputAll:true} "
     "values{ipv4Src:0x0a000001 ipv4Dst:0x0a000002 ogate:1}"},
    {"ip", "set_field:10.0.0.1->nw_src,set_field:10.0.0.2->ip_dst,output:1",
     "fields{setIpv4Src:true setIpv4Dst:true setOutputAll:true} "
     "values{ipv4Src:0x0a000001 ipv4Dst:0x0a000002 ogate:1}"},
    {"", "mod_nw_dst:10.0.0.2,output:1",
     "fields{setIpv4Dst:true setOutputAll:true} "
     "values{ipv4Dst:0x0a000002 ogate:1}"},
    {"ip,nw_ecn=2", "mod_nw_tos:32,output:1",
     "fields{setIpTos:true setOutputAll:true} values{ipTos:34 ogate:1}"},
    {"ipv6,nw_ecn=0", "set_field:8->ip_dscp,output:1",
     "fields{setIpTos:true setOutputAll:true} values{ipTos:32 ogate:1}"},
    {"ip,nw_tos=32", "mod_nw_ecn:3,output:1",
     "fields{setIpTos:true setOutputAll:true} values{ipTos:35 ogate:1}"},
    {"ip,nw_tos=32,nw_ecn=1", "mod_nw_ecn:2,output:1",
     "fields{setIpTos:true setOutputAll:true} values{ipTos:34 ogate:1}"},
    {"ip,nw_tos=32,nw_ecn=1", "mod_nw_tos:8,output:1",
     "fields{setIpTos:true setOutputAll:true} values{ipTos:9 ogate:1}"},
    {"ip", "mod_nw_tos:32,mod_nw_ecn:1,output:1",
     "fields{setIpTos:true setOutputAll:true} values{ipTos:33 ogate:1}"},
    {"ip", "set_field:4->nw_tos,set_field:1->nw_ecn,output:1",
     "fields{setIpTos:true setOutputAll:true} values{ipTos:5 ogate:1}"},
    {"", "dec_ttl,output:1",
     "fields{decTtl:true setOutputAll:true} values{ogate:1}"},
    {"ipv6", "dec_ttl,goto_table:1",
     "fields{decTtl:true gotoTbl:true} values{nextTbl:1}"},
    // Port and ICMP rewrites.
    {"tcp", "mod_tp_src:7,mod_tp_dst:80,output:1",
     "fields{setL4SrcPort:true setL4DstPort:true setOutputAll:true} "
     "values{l4SrcPort:7 l4DstPort:80 ogate:1}"},
    {"udp6", "set_field:7->udp_src,set_field:80->tp_dst,output:1",
     "fields{setL4SrcPort:true setL4DstPort:true setOutputAll:true} "
     "values{l4SrcPort:7 l4DstPort:80 ogate:1}"},
    {"tcp6", "set_field:7->tcp_src,set_field:80->tcp_dst,output:1",
     "fields{setL4SrcPort:true setL4DstPort:true setOutputAll:true} "
     "values{l4SrcPort:7 l4DstPort:80 ogate:1}"},
    {"icmp", "set_field:0->icmp_type,set_field:3->icmp_code,in_port",
     "fields{setIcmpType:true setIcmpCode:true setOutputInPort:true} "
     "values{icmpType:0 icmpCode:3}"},
    {"icmp6", "set_field:129->icmpv6_type,set_field:0->icmpv6_code,in_port",
     "fields{setIcmpType:true setIcmpCode:true setOutputInPort:true} "
     "values{icmpType:129 icmpCode:0}"},
    // Rewrites that no output sees are left out.
    {"", "mod_dl_dst:02:00:00:00:00:02", ""},
    {"tcp", "output:1,mod_tp_dst:80,dec_ttl",
     "fields{setOutputAll:true} values{ogate:1}"},
    // The same bytes at every output.
    {"", "mod_vlan_vid:5,output:1,mod_vlan_vid:5,output:2",
     "fields{setVlanVid:true setOutputAll:true} "
     "values{vlanVid:5 ogate:[1,2]}"},
};

class ActionText : public testing::TestWithParam<ActionCase> {
 protected:
  std::string line() const {
    return std::string(GetParam().match) + " actions=" + GetParam().actions;
  }
};

TEST_P(ActionText, BecomesTheModulesAction) {
  ASSERT_EQ(refusalOf(line()), "") << line();
  const Flow flow = FlowReader().readLine(line());
  constexpr std::array<uint16_t, 3> kPorts = {1, 2, 3};
  EXPECT_TRUE(
      isMessage(encodePlan(planActions(flow), kPorts), GetParam().message))
      << line();
}

TEST_P(ActionText, ReadsBackFromItsNormalForm) {
  const Flow flow = FlowReader().readLine(line());
  EXPECT_EQ(FlowReader().readLine(flowText(flow)), flow) << flowText(flow);
}

INSTANTIATE_TEST_SUITE_P(Actions, ActionText, testing::ValuesIn(kCases));

}  // namespace
}  // namespace ofswitch
