// SPDX-License-Identifier: BSD-3-Clause
//
// The records of the tables are shared by all workers. As long as packets match
// and leave, they are only read.
#include <cstddef>
#include <cstring>
#include <vector>

#include "tests/datapath/datapath_test.h"
#include "tests/support/openflow_peer.h"

namespace openflow_test {
namespace {

class SharedRecord : public DataPath {};

TEST_F(SharedRecord, IsOnlyReadForPacketsThatMatchAndLeave) {
  add(0, {Flow(1, 10).counters(kPackets, kByteCount).gotoTable(5)});
  add(5, {Flow(2, 10).decTtl().output({1, 2})});
  constexpr size_t kSize = kNumTables * sizeof(OpenFlowTable);
  const void* tables = &OpenFlowPeer::table(harness().module(), 0);
  std::vector<char> before(kSize), after(kSize);
  std::memcpy(before.data(), tables, kSize);
  for (int wid = 0; wid < 2; wid++) {
    const RunResult result = run({InputPacket(tcpFrame())}, wid);
    EXPECT_EQ(result.gate(1).size(), 1u);
    EXPECT_EQ(result.gate(2).size(), 1u);
  }
  std::memcpy(after.data(), tables, kSize);
  EXPECT_EQ(before, after);
}

// And one that misses does, which shows that the comparison sees it.
TEST_F(SharedRecord, IsWrittenForPacketsThatMiss) {
  add(0, {Flow(1, 10).ethType(0x0806).output({1})});
  const uint64_t before =
      OpenFlowPeer::table(harness().module(), 0).counters[kTableMisses];
  run({InputPacket(tcpFrame())});
  EXPECT_EQ(OpenFlowPeer::table(harness().module(), 0).counters[kTableMisses],
            before + 1);
}

}  // namespace
}  // namespace openflow_test
