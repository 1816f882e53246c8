// SPDX-License-Identifier: BSD-3-Clause
//
// A first test against the module, without a test framework: a TCP packet is
// routed, everything else is dropped.
#include <iostream>

#include "tests/support/frame.h"
#include "tests/support/module_harness.h"

using namespace openflow_test;

int main() {
  ModuleHarness harness;
  harness.addFlows(
      0, {Flow(1, 10).ipProto(6).decTtl().output({2}), Flow(2, 1).drop()});

  const uint32_t client = ip4("10.0.0.1"), server = ip4("10.0.0.2");
  const RunResult result =
      harness.run({Frame::eth().ipv4(client, server).tcp(4000, 80),
                   Frame::eth().ipv4(client, server).udp(4000, 53)});
  std::cout << result;

  const Bytes routed = Frame::eth().ipv4(client, server).tcp(4000, 80).ttl(63);
  const bool good = result.numEmitted() == 1 && result.gate(2).size() == 1 &&
                    result.gate(2)[0].bytes == routed && result.drops == 2 &&
                    result.table(0).dropActions == 1;
  return good ? 0 : 1;
}
