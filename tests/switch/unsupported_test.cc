// SPDX-License-Identifier: BSD-3-Clause
//
// Words of other switches' flows: each one's reason, word for word.
#include "switch/flow/unsupported.h"

#include <gtest/gtest.h>

#include <string>

namespace ofswitch {
namespace {

struct Row {
  const char* word;
  const char* reason;
};

const Row kMatchFields[] = {
    {"arp_op", "the module does not read the ARP operation"},
    {"arp_spa",
     "the module reads only the ARP target address; write arp_tpa=ADDRESS"},
    {"arp_sha",
     "the module does not read ARP hardware addresses; write dl_src=ADDRESS "
     "for the frame's sender"},
    {"arp_tha", "the module does not read ARP hardware addresses"},
    {"nw_frag",
     "the module does not look at fragments and treats them like any packet"},
    {"ip_frag",
     "the module does not look at fragments and treats them like any packet"},
    {"ipv6_label", "the module does not read the IPv6 flow label"},
    {"nd_target", "the module does not read neighbour discovery messages"},
    {"ct_state", "the module does not track connections"},
    {"conj_id", "the module has no conjunctive matches"},
    {"reg7", "the module has no registers; use one table for each value"},
    {"xreg0", "the module has no registers; use one table for each value"},
    {"xxreg3", "the module has no registers; use one table for each value"},
    {"tun_src", "the module has no tunnels"},
    {"tunnel_id", "the module has no tunnels"},
    {"tun_id", "the module has no tunnels"},
    {"mpls_label", "the module does not read MPLS labels"},
    {"nsh_spi", "the module does not read network service headers"},
    {"pkt_mark", "packets carry no mark here"},
    {"skb_priority", "packets carry no queueing priority here"},
    {"recirc_id", "packets are never sent round again here"},
    {"dp_hash", "packets carry no hash here"},
    {"packet_type", "every packet here is an Ethernet frame"},
    {"actset_output", "the module has no action sets"},
    {"in_port_oxm", "write in_port=PORT"},
};

const Row kActions[] = {
    {"normal",
     "the module does not learn addresses; write flood, or output:PORT for "
     "each known address"},
    {"local", "the switch has no port of its own host"},
    {"table", "packets cannot start again; write goto_table:TABLE"},
    {"none", "write drop"},
    {"enqueue", "the module has no queues; write output:PORT"},
    {"set_queue", "the module has no queues"},
    {"pop_queue", "the module has no queues"},
    {"group", "the module has no groups; write the outputs of the bucket"},
    {"meter", "the module has no meters"},
    {"bundle", "the module does not spread packets over ports"},
    {"bundle_load", "the module has no registers"},
    {"multipath", "the module has no registers"},
    {"learn", "the module does not install flows by itself"},
    {"fin_timeout", "the module's flows do not expire"},
    {"load", "write set_field:VALUE->FIELD"},
    {"move", "the module writes constants only; write set_field:VALUE->FIELD"},
    {"push", "the module has no stack"},
    {"pop", "the module has no stack"},
    {"ct", "the module does not track connections"},
    {"ct_clear", "the module does not track connections"},
    {"nat",
     "the module does not track connections; rewrite with mod_nw_src and "
     "mod_tp_src"},
    {"conjunction", "the module has no conjunctive matches"},
    {"write_actions",
     "the module has no action set; write the actions themselves"},
    {"write_metadata",
     "the metadata of a packet carries its in-port here; use one table for "
     "each value"},
    {"set_mpls_tc", "the module does not rewrite MPLS labels"},
    {"push_mpls", "the module does not rewrite MPLS labels"},
    {"pop_mpls", "the module does not rewrite MPLS labels"},
    {"dec_mpls_ttl", "the module does not rewrite MPLS labels"},
    {"mod_nw_ttl", "the module only decrements the TTL; write dec_ttl"},
    {"set_tunnel64", "the module has no tunnels"},
    {"encap", "the module adds no headers but one VLAN tag"},
    {"decap", "the module removes no headers but one VLAN tag"},
    {"dec_nsh_ttl", "the module does not read network service headers"},
    {"sample", "the module takes no samples"},
    {"note", "notes are not kept; write them as a # comment"},
    {"exit", "an action list ends by itself"},
    {"clone", "all rewrites come before the outputs in the module"},
    {"check_pkt_larger", "the module has no registers"},
    {"delete_field", "the module has no tunnels"},
    {"debug_slow", "it is for tests of another switch"},
};

const Row kFlags[] = {
    {"importance", "flows are never evicted here; leave it out"},
    {"send_flow_rem", "nobody is told of removed flows here; leave it out"},
    {"check_overlap", "overlaps are not looked for; leave it out"},
    {"reset_counts", "it has no meaning for a new flow; leave it out"},
    {"no_packet_counts", "every flow counts here; leave it out"},
    {"no_byte_counts", "every flow counts here; leave it out"},
    {"out_port", "it selects flows to delete, not to add; leave it out"},
    {"out_group", "it selects flows to delete, not to add; leave it out"},
};

TEST(Unsupported, MatchFields) {
  for (const Row& row : kMatchFields) {
    EXPECT_EQ(unsupportedField(row.word), row.reason) << row.word;
  }
}

TEST(Unsupported, Actions) {
  for (const Row& row : kActions) {
    EXPECT_EQ(unsupportedAction(row.word), row.reason) << row.word;
  }
}

TEST(Unsupported, Flags) {
  for (const Row& row : kFlags) {
    EXPECT_EQ(unsupportedFlag(row.word), row.reason) << row.word;
  }
}

// A star in the list stands for any rest, also for none; other words are whole.
TEST(Unsupported, NothingElse) {
  for (const char* word : {"", "nw_src", "arp_op2", "arp_o", "nd", "group"}) {
    EXPECT_EQ(unsupportedField(word), std::nullopt) << word;
  }
  for (const char* word : {"", "output", "groups", "grou", "set_mpls"}) {
    EXPECT_EQ(unsupportedAction(word), std::nullopt) << word;
  }
  for (const char* word : {"", "priority", "importance2", "group"}) {
    EXPECT_EQ(unsupportedFlag(word), std::nullopt) << word;
  }
  EXPECT_EQ(unsupportedField("reg"), unsupportedField("reg0"));
  EXPECT_EQ(unsupportedField("conj_id"),
            "the module has no conjunctive matches");
  EXPECT_EQ(unsupportedAction("set_tunnel"), unsupportedAction("set_tunnel64"));
}

}  // namespace
}  // namespace ofswitch
