// SPDX-License-Identifier: BSD-3-Clause
//
// Tables of so many flows that what a match leads to is asked for ahead: the
// packets must not see it.
#include "platform/quil_modules/counter_db.h"
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

constexpr uint32_t kFlows = 5000;

// Flow i takes 10.1.0.0 + i, or 2001:db8::i, to one of seven gates.
uint32_t address(uint32_t i) { return ip4("10.1.0.0") + i; }

Ip6 address6(uint32_t i) {
  Ip6 address = ip6("2001:db8::");
  address[14] = static_cast<uint8_t>(i >> 8);
  address[15] = static_cast<uint8_t>(i);
  return address;
}

uint16_t gate(uint32_t i) { return static_cast<uint16_t>(1 + i % 7); }

std::vector<Flow> flows(bool ipv6) {
  std::vector<Flow> flows;
  for (uint32_t i = 0; i < kFlows; i++) {
    Flow flow(i + 1, 100);
    if (ipv6) {
      flow.ethType(0x86dd).ipv6Dst(address6(i));
    } else {
      flow.ethType(0x0800).ipv4Dst(address(i));
    }
    flows.push_back(
        flow.counters(2 * (i % 64), 2 * (i % 64) + 1).output({gate(i)}));
  }
  return flows;
}

// First and last flow, the ones around powers of two, and none.
std::vector<InputPacket> packets(bool ipv6) {
  std::vector<InputPacket> packets;
  for (const uint32_t i :
       {0u, 1u, 255u, 256u, 2047u, 4095u, 4096u, kFlows - 1, kFlows, 65535u}) {
    packets.push_back(ipv6 ? Frame::eth().ipv6(kIp6A, address6(i)).tcp(7, 80)
                           : Frame::eth().ipv4(kIpA, address(i)).udp(7, 80));
  }
  return packets;
}

using LargeTable = DataPath;

TEST_F(LargeTable, LeadsEachPacketToItsFlow) {
  add(0, flows(false));
  const RunResult result = run(packets(false));
  EXPECT_EQ(result.table(0).tableMisses, 2u);
  EXPECT_EQ(result.flowCounters.at(0), 3u);       // flows 0, 256 and 4096
  EXPECT_EQ(result.flowCounters.at(2 * 63), 3u);  // 255, 2047 and 4095
  EXPECT_EQ(result.gate(gate(4096)).size(), 3u);  // and flows 1, 4999
}

TEST_F(LargeTable, OfBothFamilies) {
  add(0, flows(false));
  add(0, flows(true), Family::kIpv6);
  EXPECT_EQ(run(packets(false)).table(0).tableMisses, 2u);
  EXPECT_EQ(run(packets(true)).table(0).tableMisses, 2u);
}

TEST_F(LargeTable, OfIpv6Alone) {
  add(0, flows(true), Family::kIpv6);
  const RunResult result = run(packets(true));
  EXPECT_EQ(result.table(0).tableMisses, 2u);
  EXPECT_EQ(result.flowCounters.at(0), 3u);
}

TEST(LargeTableOfAWorkerWithoutCounters, LeadsPacketsToTheirFlows) {
  ModuleHarness harness;
  harness.addFlows(0, flows(false));
  EXPECT_FALSE(harness.run(packets(false)).flowCounters.empty());
  harness.onCommandThread([] { QuilModules::bessCounterDb.destroy(0); });
  const RunResult result = harness.run(packets(false));
  EXPECT_EQ(result.table(0).tableMisses, 2u);
  EXPECT_EQ(result.numEmitted(), 8u);
  EXPECT_TRUE(result.flowCounters.empty());
}

}  // namespace
}  // namespace openflow_test
