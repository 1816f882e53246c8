// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/unsupported.h"

#include <iterator>
#include <span>

namespace ofswitch {
namespace {

struct Entry {
  std::string_view name;  // a final '*' stands for any rest
  std::string_view reason;
};

constexpr Entry kFields[] = {
    {"arp_op", "the module does not read the ARP operation"},
    {"arp_spa",
     "the module reads only the ARP target address; write arp_tpa=ADDRESS"},
    {"arp_sha",
     "the module does not read ARP hardware addresses; write "
     "dl_src=ADDRESS for the frame's sender"},
    {"arp_tha", "the module does not read ARP hardware addresses"},
    {"nw_frag",
     "the module does not look at fragments and treats them like any packet"},
    {"ip_frag",
     "the module does not look at fragments and treats them like any packet"},
    {"ipv6_label", "the module does not read the IPv6 flow label"},
    {"nd_*", "the module does not read neighbour discovery messages"},
    {"ct_*", "the module does not track connections"},
    {"conj_id", "the module has no conjunctive matches"},
    {"reg*", "the module has no registers; use one table for each value"},
    {"xreg*", "the module has no registers; use one table for each value"},
    {"xxreg*", "the module has no registers; use one table for each value"},
    {"tun_*", "the module has no tunnels"},
    {"tunnel_id", "the module has no tunnels"},
    {"tun_id", "the module has no tunnels"},
    {"mpls_*", "the module does not read MPLS labels"},
    {"nsh_*", "the module does not read network service headers"},
    {"pkt_mark", "packets carry no mark here"},
    {"skb_priority", "packets carry no queueing priority here"},
    {"recirc_id", "packets are never sent round again here"},
    {"dp_hash", "packets carry no hash here"},
    {"packet_type", "every packet here is an Ethernet frame"},
    {"actset_output", "the module has no action sets"},
    {"in_port_oxm", "write in_port=PORT"},
};

constexpr Entry kActions[] = {
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
     "the module does not track connections; rewrite with "
     "mod_nw_src and mod_tp_src"},
    {"conjunction", "the module has no conjunctive matches"},
    {"write_actions",
     "the module has no action set; write the actions themselves"},
    {"write_metadata",
     "the metadata of a packet carries its in-port here; use one table for "
     "each value"},
    {"set_mpls_*", "the module does not rewrite MPLS labels"},
    {"push_mpls", "the module does not rewrite MPLS labels"},
    {"pop_mpls", "the module does not rewrite MPLS labels"},
    {"dec_mpls_ttl", "the module does not rewrite MPLS labels"},
    {"mod_nw_ttl", "the module only decrements the TTL; write dec_ttl"},
    {"set_tunnel*", "the module has no tunnels"},
    {"encap", "the module adds no headers but one VLAN tag"},
    {"decap", "the module removes no headers but one VLAN tag"},
    {"dec_nsh_ttl", "the module does not read network service headers"},
    {"sample", "the module takes no samples"},
    {"note", "notes are not kept; write them as a # comment"},
    {"exit", "an action list ends by itself"},
    {"clone", "all rewrites come before the outputs in the module"},
    {"check_pkt_larger", "the module has no registers"},
    {"delete_field", "the module has no tunnels"},
    {"debug_*", "it is for tests of another switch"},
};

constexpr Entry kFlags[] = {
    {"importance", "flows are never evicted here; leave it out"},
    {"send_flow_rem", "nobody is told of removed flows here; leave it out"},
    {"check_overlap", "overlaps are not looked for; leave it out"},
    {"reset_counts", "it has no meaning for a new flow; leave it out"},
    {"no_packet_counts", "every flow counts here; leave it out"},
    {"no_byte_counts", "every flow counts here; leave it out"},
    {"out_port", "it selects flows to delete, not to add; leave it out"},
    {"out_group", "it selects flows to delete, not to add; leave it out"},
};

std::optional<std::string> find(std::span<const Entry> entries,
                                std::string_view name) {
  for (const Entry& entry : entries) {
    const bool open = entry.name.ends_with('*');
    const std::string_view stem =
        entry.name.substr(0, entry.name.size() - (open ? 1 : 0));
    if (open ? name.starts_with(stem) : name == stem)
      return std::string(entry.reason);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> unsupportedField(std::string_view name) {
  return find(kFields, name);
}

std::optional<std::string> unsupportedAction(std::string_view name) {
  return find(kActions, name);
}

std::optional<std::string> unsupportedFlag(std::string_view name) {
  return find(kFlags, name);
}

}  // namespace ofswitch
