// SPDX-License-Identifier: BSD-3-Clause
#include "tests/datapath/datapath_test.h"

namespace openflow_test {

std::unique_ptr<ModuleHarness> DataPath::harness_;

void DataPath::SetUpTestSuite() {
  harness_ = std::make_unique<ModuleHarness>();
}

void DataPath::TearDownTestSuite() { harness_.reset(); }

void DataPath::SetUp() {
  harness_->clearFlows();
  twin_ = std::make_unique<ReferenceModule>();
}

void DataPath::add(uint32_t tableId, const std::vector<Flow>& flows,
                   Family family) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_tableid(tableId);
  arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(family));
  for (const Flow& flow : flows) *arg.add_adds() = flow.message();
  update(arg);
}

void DataPath::update(const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  ASSERT_EQ(harness_->updateFlows(arg).error().code(), 0);
  ASSERT_EQ(twin_->updateFlows(arg), 0);
}

RunResult DataPath::run(const std::vector<InputPacket>& packets, int wid) {
  RunResult result = harness_->run(packets, wid);
  EXPECT_EQ(result, twin_->run(packets))
      << "packets: " << ::testing::PrintToString(packets);
  return result;
}

OutputPacket DataPath::runOne(const InputPacket& packet, uint16_t gate) {
  const RunResult result = run({packet});
  EXPECT_EQ(result.numEmitted(), 1u) << packet;
  EXPECT_EQ(result.gate(gate).size(), 1u) << packet;
  return result.gate(gate).empty() ? OutputPacket{} : result.gate(gate)[0];
}

}  // namespace openflow_test
