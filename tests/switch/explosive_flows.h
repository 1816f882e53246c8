// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdio>
#include <string>

namespace openflow_test {

// 2,000 MACs, and 40 five-tuples that leave the MAC open, so that each has to
// be looked for below each MAC: gigabytes to build, in a table of their own.
inline std::string explosiveFlows(unsigned table = 0) {
  std::string flows;
  char line[200];
  for (int i = 0; i < 2000; i++) {
    std::snprintf(line, sizeof(line),
                  "table=%u,dl_dst=02:00:00:00:%02x:%02x,actions=output:2\n",
                  table, i / 256, i % 256);
    flows += line;
  }
  for (int i = 0; i < 40; i++) {
    std::snprintf(line, sizeof(line),
                  "table=%u,priority=40000,tcp,nw_src=10.%d.0.1,"
                  "nw_dst=11.0.%d.1,tp_dst=%d,actions=drop\n",
                  table, i * 37 % 256, i * 91 % 256, 80 + 131 * i);
    flows += line;
  }
  return flows;
}

// The same in the table of IPv6.
inline std::string explosiveIpv6Flows() {
  std::string flows;
  char line[200];
  for (int i = 0; i < 2000; i++) {
    std::snprintf(line, sizeof(line),
                  "ipv6,dl_dst=02:00:00:00:%02x:%02x,actions=output:2\n",
                  i / 256, i % 256);
    flows += line;
  }
  for (int i = 0; i < 40; i++) {
    std::snprintf(line, sizeof(line),
                  "priority=40000,tcp6,ipv6_src=2001:db8:%x::1,"
                  "ipv6_dst=2001:db8:0:%x::1,tp_dst=%d,actions=drop\n",
                  i * 37 % 256, i * 91 % 256, 80 + 131 * i);
    flows += line;
  }
  return flows;
}

}  // namespace openflow_test
