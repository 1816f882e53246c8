// SPDX-License-Identifier: BSD-3-Clause
//
// Batches of every size, each packet with a flow of its own: the classifiers
// take keys in groups, and the last group is rarely full.
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

class BatchSize : public DataPath, public ::testing::WithParamInterface<int> {};

// Flow i takes destination port i, of both families by turns, to gate 1 + i % 7
// and counts in i.
std::vector<Flow> flows(bool ipv6) {
  std::vector<Flow> flows;
  for (uint32_t i = ipv6; i <= kMaxBatch; i += 2) {
    flows.push_back(Flow(i, 10)
                        .ethType(ipv6 ? 0x86dd : 0x0800)
                        .l4DstPort(i)
                        .counters(i, 100 + i)
                        .decTtl()
                        .output({1 + i % 7}));
  }
  return flows;
}

Frame packet(uint16_t i) {
  return i % 2 != 0 ? Frame::eth().ipv6(kIp6A, kIp6B).udp(7, i)
                    : Frame::eth().ipv4(kIpA, kIpB).udp(7, i);
}

TEST_P(BatchSize, EachPacketGetsItsFlow) {
  add(0, flows(false));
  add(0, flows(true), Family::kIpv6);
  std::vector<InputPacket> packets;
  for (int i = 0; i < GetParam(); i++) {
    packets.emplace_back(packet(static_cast<uint16_t>(i)));
  }
  const RunResult result = run(packets);
  EXPECT_EQ(result.numEmitted(), packets.size());
  EXPECT_EQ(result.drops, packets.size());
  EXPECT_TRUE(result.tables.empty()) << result;
  for (int i = 0; i < GetParam(); i++) {
    const auto id = static_cast<uint32_t>(i);
    EXPECT_EQ(result.flowCounters.at(id), 1u);
    EXPECT_EQ(result.flowCounters.at(100 + id), packets[id].bytes.size());
    Frame sent = packet(static_cast<uint16_t>(i)).ttl(63);
    EXPECT_EQ(hexDump(result.gate(static_cast<uint16_t>(1 + i % 7))
                          .at(static_cast<size_t>(i / 7))
                          .bytes),
              hexDump(sent));
  }
}

INSTANTIATE_TEST_SUITE_P(Packets, BatchSize, ::testing::Range(1, 33));

}  // namespace
}  // namespace openflow_test
