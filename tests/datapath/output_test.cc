// SPDX-License-Identifier: BSD-3-Clause
//
// Output lists, the input port, and drops: which gates get a copy, and what the
// copies carry.
#include <numeric>

#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

// Gates that a packet goes out on, one for every copy.
using Gates = std::vector<uint16_t>;

struct OutputCase {
  const char* name;
  Flow flow;
  MetadataBlock meta;
  Gates expected;
  uint64_t unconnected = 0;  // copies that the host drops
};

void PrintTo(const OutputCase& row, std::ostream* out) { *out << row.meta; }

class Output : public DataPath,
               public ::testing::WithParamInterface<OutputCase> {};

TEST_P(Output, GoesToTheGates) {
  const OutputCase& row = GetParam();
  Flow flow = row.flow;
  add(0, {flow.counters(kPackets, kByteCount)});
  const Bytes frame = tcpFrame();
  const RunResult result = run({InputPacket(frame, row.meta)});

  Gates gates;
  for (const auto& [gate, packets] : result.gates) {
    gates.insert(gates.end(), packets.size(), gate);
    for (const OutputPacket& packet : packets) {
      EXPECT_EQ(hexDump(packet.bytes), hexDump(frame));
      EXPECT_EQ(packet.meta, MetadataBlock{});
    }
  }
  EXPECT_EQ(gates, row.expected);
  EXPECT_EQ(result.drops, 1 + row.unconnected);
  EXPECT_EQ(result.flowCounters.at(kPackets), 1u);
  EXPECT_EQ(result.flowCounters.at(kByteCount), frame.size());
  EXPECT_TRUE(result.tables.empty()) << result;
}

Flow any() { return Flow(1, 10); }

MetadataBlock from(uint32_t inPort) {
  return MetadataBlock{}.withInPort(inPort);
}

MetadataBlock notValid(uint32_t inPort) {
  MetadataBlock block;
  block.inPort = inPort;
  return block;
}

// Several output flags at once; the words keep only the last gate list.
Flow both(Flow flow, const std::vector<uint32_t>& gates) {
  return flow.output(gates);
}

std::vector<uint32_t> gateRange(uint32_t first, size_t count) {
  std::vector<uint32_t> gates(count);
  std::iota(gates.begin(), gates.end(), first);
  return gates;
}

const OutputCase kOutputCases[] = {
    {"Port", any().output({3}), from(2), {3}},
    {"PortsWithInPort", any().output({1, 2, 3}), from(2), {1, 2, 3}},
    {"PortTwice", any().output({3, 3}), from(2), {3, 3}},
    {"PortNone", any().output({}), from(2), {}},
    {"PortZero", any().output({0}), from(2), {0}},
    {"PortLow16Bits", any().output({0x10003}), from(2), {3}},
    {"PortUnconnected", any().output({9, 3}), from(2), {3}, 1},
    {"PortBeyondLastGate",
     any().output({8191, 8192, 65535, 1}),
     from(2),
     {1},
     3},
    {"All", any().outputAll({1, 2, 3}), from(2), {1, 3}},
    {"Flood", any().flood({1, 2, 3}), from(2), {1, 3}},
    {"FloodInPortNotListed", any().flood({1, 3}), from(2), {1, 3}},
    {"FloodOnlyInPort", any().flood({2}), from(2), {}},
    {"FloodInPortTwice", any().flood({2, 1, 2}), from(2), {1}},
    {"FloodInPortLow16Bits", any().flood({1, 2, 3}), from(0x70002), {1, 3}},
    {"FloodInPortAbove255", any().flood({1, 0x102, 2}), from(0x102), {1, 2}},
    {"AllInPortIsTheLastGate",
     any().outputAll({2, 8191, 255}),
     from(8191),
     {2},
     1},
    {"FloodWithoutInPortLeavesOutZero",
     any().flood({0, 1, 2}),
     notValid(2),
     {1, 2}},
    {"AllWithoutInPortLeavesOutZero",
     any().outputAll({0, 1, 2}),
     notValid(2),
     {1, 2}},
    {"AllBeatsFloodAndPort",
     both(any().outputAll({}).flood({}), {1, 2}),
     from(2),
     {1}},
    {"FloodBeatsPort", both(any().flood({}), {1, 2}), from(2), {1}},
    {"InPort", any().outputInPort(), from(2), {2}},
    {"InPortLow16Bits", any().outputInPort(), from(0xffff0003), {3}},
    {"InPortAbove255", any().outputInPort(), from(0x1102), {}, 1},
    {"ControllerInPortAbove255", any().controller(1), from(0x1102), {}, 1},
    {"InPortNotValidIsZero", any().outputInPort(), notValid(2), {0}},
    {"InPortUnconnected", any().outputInPort(), from(99), {}, 1},
    {"PortAndInPort", any().output({2, 3}).outputInPort(), from(2), {2, 2, 3}},
    {"FloodAndInPort",
     any().flood({1, 2, 3}).outputInPort(),
     from(2),
     {1, 2, 3}},
    {"SixtyFourGates",
     any().output(gateRange(0, 64)),
     from(2),
     {0, 1, 2, 3, 4, 5, 6, 7},
     56},
    {"FloodSixtyFourGates",
     any().flood(gateRange(0, 64)),
     from(63),
     {0, 1, 2, 3, 4, 5, 6, 7},
     55},
};

INSTANTIATE_TEST_SUITE_P(Rows, Output, ::testing::ValuesIn(kOutputCases),
                         rowName);

class OutputBatch : public DataPath {};

TEST_F(OutputBatch, OrderOfPacketsIsKeptOnEveryGate) {
  add(0, {any().output({1, 2, 1})});
  std::vector<InputPacket> packets;
  for (uint16_t i = 0; i < kMaxBatch; i++) {
    packets.emplace_back(Frame::eth().ipv4(kIpA, kIpB).tcp(i, 80));
  }
  const RunResult result = run(packets);
  ASSERT_EQ(result.gate(1).size(), 64u);
  ASSERT_EQ(result.gate(2).size(), 32u);
  for (size_t i = 0; i < kMaxBatch; i++) {
    EXPECT_EQ(result.gate(1)[2 * i].bytes, packets[i].bytes);
    EXPECT_EQ(result.gate(1)[2 * i + 1].bytes, packets[i].bytes);
    EXPECT_EQ(result.gate(2)[i].bytes, packets[i].bytes);
  }
  EXPECT_EQ(result.drops, 32u);
}

TEST_F(OutputBatch, CopiesDoNotShareBytes) {
  // Each output is a copy of its own: the last one, to the controller, grows.
  add(0, {any().output({1}).outputInPort().controller(3)});
  const Bytes frame = tcpFrame();
  const RunResult result = run({InputPacket(frame, from(2))});
  EXPECT_EQ(result.gate(1)[0].bytes, frame);
  ASSERT_EQ(result.gate(2).size(), 2u);
  EXPECT_EQ(result.gate(2)[0].bytes, frame);
  EXPECT_EQ(result.gate(2)[1].bytes.size(), frame.size() + 26);
  EXPECT_EQ(result.drops, 1u);
}

TEST_F(OutputBatch, DropBesideOutputsCountsAndSendsNothingItself) {
  add(0, {any().drop().output({1}).counters(kPackets, kByteCount)});
  const RunResult result = run({tcpFrame(), tcpFrame()});
  EXPECT_EQ(result.gate(1).size(), 2u);
  EXPECT_EQ(result.table(0).dropActions, 2u);
  EXPECT_EQ(result.table(0).noOutputDrops, 0u);
  EXPECT_EQ(result.drops, 2u);
  EXPECT_EQ(result.flowCounters.at(kPackets), 2u);
}

// A flood of a full batch to 64 connected gates, with more than one batch for
// the gates that are listed twice.
TEST(ManyGates, FullBatchToEveryOne) {
  HarnessOptions options;
  options.gates.resize(200);
  std::iota(options.gates.begin(), options.gates.end(), uint16_t{0});
  options.gates.push_back(8191);
  options.poolPackets = 8191;
  ModuleHarness harness(options);
  ReferenceModule twin(options);
  std::vector<uint32_t> first = gateRange(0, 64), second = gateRange(100, 63);
  second.push_back(8191);
  quil::pb::OpenFlowUpdateFlowsArg arg;
  *arg.add_adds() = Flow(1, 10).output(first).gotoTable(1).message();
  ASSERT_EQ(harness.updateFlows(arg).error().code(), 0);
  ASSERT_EQ(twin.updateFlows(arg), 0);
  *arg.mutable_adds(0) = Flow(1, 10).output(second).message();
  arg.set_tableid(1);
  ASSERT_EQ(harness.updateFlows(arg).error().code(), 0);
  ASSERT_EQ(twin.updateFlows(arg), 0);

  const std::vector<InputPacket> packets(kMaxBatch, tcpFrame());
  const RunResult result = harness.run(packets);
  EXPECT_EQ(result, twin.run(packets));
  EXPECT_EQ(result.gates.size(), 128u);
  EXPECT_EQ(result.numEmitted(), 128u * 32);
  EXPECT_EQ(result.gate(8191).size(), 32u);
  EXPECT_EQ(result.drops, 64u);
  EXPECT_EQ(result.leakedPackets, 0);
}

// The same packets to several hundred gates, 64 from every table of a chain.
TEST(ManyGates, HundredsFromOneChain) {
  constexpr uint32_t kChain = 8;
  HarnessOptions options;
  options.gates.resize(kChain * 64);
  std::iota(options.gates.begin(), options.gates.end(), uint16_t{0});
  options.poolPackets = 16383;
  ModuleHarness harness(options);
  for (uint32_t t = 0; t < kChain; t++) {
    Flow flow = Flow(1, 10).flood(gateRange(t * 64, 64));
    if (t + 1 < kChain) flow.gotoTable(t + 1);
    harness.addFlows(t, {flow});
  }
  std::vector<InputPacket> packets;
  for (uint16_t i = 0; i < 16; i++) {
    packets.emplace_back(Frame::eth().ipv4(kIpA, kIpB).tcp(i, 80), from(100));
  }
  const RunResult result = harness.run(packets);
  EXPECT_EQ(result.gates.size(), 511u) << "all but the in-port";
  for (const auto& [gate, emitted] : result.gates) {
    ASSERT_EQ(emitted.size(), packets.size()) << gate;
    for (size_t i = 0; i < packets.size(); i++) {
      EXPECT_EQ(emitted[i].bytes, packets[i].bytes) << gate;
    }
  }
  EXPECT_EQ(result.drops, kChain * packets.size());
  EXPECT_TRUE(result.tables.empty()) << result;
  EXPECT_EQ(result.leakedPackets, 0);
}

// ---- Limits of the command.

TEST(GateLimit, MoreThan64FailTheWholeUpdate) {
  ModuleHarness harness;
  const Flow good = Flow(1, 10).output({1});
  const Flow bad = Flow(2, 20).output(gateRange(0, 65));
  for (const auto& flows : {std::vector{good, bad}, std::vector{bad, good}}) {
    quil::pb::OpenFlowUpdateFlowsArg arg;
    for (const Flow& flow : flows) *arg.add_adds() = flow.message();
    EXPECT_LT(harness.updateFlows(arg).error().code(), 0);
    EXPECT_EQ(harness.stats(0).numflows(), 0u);
    EXPECT_EQ(harness.run({tcpFrame()}).table(0).noClassifier, 1u);
  }
}

TEST(GateLimit, TableBeyondTheLastFails) {
  ModuleHarness harness;
  for (const uint32_t table : {32u, 33u, 256u, 0xffffffffu}) {
    quil::pb::OpenFlowUpdateFlowsArg arg;
    arg.set_tableid(table);
    *arg.add_adds() = Flow(1, 10).output({1}).message();
    const auto response = harness.updateFlows(arg);
    EXPECT_EQ(response.error().code(), -1);
    EXPECT_EQ(response.error().errmsg(), "Invalid table id");
  }
  for (uint32_t t = 0; t < kFlowTables; t++) {
    EXPECT_EQ(harness.stats(t).numflows(), 0u);
    EXPECT_EQ(harness.tableCounters(t), TableCounters{});
  }
}

}  // namespace
}  // namespace openflow_test
