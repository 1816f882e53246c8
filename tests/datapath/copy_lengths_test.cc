// SPDX-License-Identifier: BSD-3-Clause
//
// The length that outputs say they have, which is what devices send: of chained
// packets, it stands in the first segment.
#include <gmock/gmock.h>

#include <vector>

#include "graph.h"
#include "internal/registered_class.h"
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

// Notes the lengths of what enters it.
class Lengths final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = 1;
  static constexpr gate_idx_t kNumOGates = 0;
  static const Commands cmds;

  CommandResponse Init(const bess::pb::EmptyArg&) { return CommandSuccess(); }

  void ProcessBatch(Context*, bess::PacketBatch* batch) override {
    for (int i = 0; i < batch->cnt(); i++) {
      said.push_back(batch->pkts()[i]->total_len());
    }
    bess::Packet::Free(batch);
  }

  std::vector<int> said;
};

const Commands Lengths::cmds = {};

const bess::internal::RegisteredClass<Lengths> lengthsClass(
    "Lengths", "lengths", "notes the lengths of packets");

constexpr uint16_t kGate = 9;

TEST_F(DataPath, OutputsSayTheirWholeLength) {
  auto* lengths =
      static_cast<Lengths*>(bess::CreateModule("Lengths", "lengths").module);
  ASSERT_NE(lengths, nullptr);
  ASSERT_EQ(
      bess::ConnectModules(harness().hostModule().name(), kGate, "lengths", 0)
          .error()
          .code(),
      0);
  add(0, {Flow(1, 10).controller(1).output({kGate})});
  for (const size_t size : {60, 3000, 6000}) {
    InputPacket packet(tcpFrame().payload(size - 54),
                       MetadataBlock{}.withInPort(kGate));
    const int wire = static_cast<int>(packet.bytes.size());
    harness().run({packet});
    EXPECT_THAT(lengths->said, testing::ElementsAre(wire, wire + 22 + 4));
    lengths->said.clear();
  }
  EXPECT_EQ(bess::DestroyModule("lengths").error().code(), 0);
}

}  // namespace
}  // namespace openflow_test
