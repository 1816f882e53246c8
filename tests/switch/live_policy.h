// SPDX-License-Identifier: BSD-3-Clause
//
// A policy of two tables, and packets for it.
#pragma once

#include "tests/support/frame.h"

namespace ofswitch {

inline openflow_test::Frame tcpTo(uint16_t port) {
  using openflow_test::ip4;
  return openflow_test::Frame::eth()
      .ipv4(ip4("10.0.0.1"), ip4("10.0.0.2"))
      .tcp(1000, port);
}

inline constexpr char kPolicy[] =
    "table=0,priority=10,in_port=1,actions=goto_table:4\n"
    "table=4,priority=50,tcp,tp_dst=23,actions=drop\n"
    "table=4,priority=40,tcp,tp_dst=80,actions=dec_ttl,output:3\n"
    "table=4,priority=40,tcp,tp_dst=81,actions=output:3,output:9\n"
    "table=4,priority=40,tcp,tp_dst=82,actions=controller\n"
    "table=4,priority=30,ipv6,actions=mod_dl_dst:02:00:00:00:00:09,output:3\n";

}  // namespace ofswitch
