// SPDX-License-Identifier: BSD-3-Clause
//
// A flow's action becomes a record, compared byte for byte; its copies for a
// classifier.
#include "modules/openflow/translate/flow_action.h"

#include <rte_malloc.h>

#include <cstddef>
#include <cstring>
#include <sstream>

#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

TEST(FlowAction, LiesInMemoryAsWorkersCopyIt) {
  EXPECT_EQ(alignof(OfFlowAction), 64u);
  EXPECT_EQ(sizeof(OfFlowAction) % 64, 0u);
  EXPECT_EQ(offsetof(OfFlowAction, priority), 0u);
  EXPECT_EQ(offsetof(OfFlowAction, packetCounterId), 4u);
  EXPECT_EQ(offsetof(OfFlowAction, byteCounterId), 8u);
  EXPECT_EQ(offsetof(OfFlowAction, fields), 12u);
  EXPECT_EQ(sizeof(OfActionFields), 3u);
  EXPECT_EQ(offsetof(OfFlowAction, values), 16u);
  EXPECT_EQ(offsetof(OfActionValues, ogate), 34u);
  EXPECT_EQ(sizeof(OfActionValues::ogate), 64 * sizeof(uint16_t));
}

// Workers test several flags at once in this form.
TEST(FlowAction, ReadsAsOneNumber) {
  OfFlowAction action;
  std::memset(static_cast<void*>(&action), 0xff, sizeof(action));
  action.fields = {};
  EXPECT_EQ(actionBits(action), 0u);
  OfActionFields& fields = action.fields;
  fields.setEthDst = fields.setEthSrc = 1;
  fields.setVlanVid = fields.setVlanPcp = 1;
  fields.setIpTos = fields.setIpv4Src = fields.setIpv4Dst = 1;
  fields.setL4SrcPort = fields.setL4DstPort = 1;
  fields.setIcmpType = fields.setIcmpCode = 1;
  fields.popVlan = fields.decTtl = 1;
  EXPECT_EQ(actionBits(action), kRewriteBits);
  fields = {};
  fields.setEthDst = fields.setEthSrc = 1;
  EXPECT_EQ(actionBits(action), kRewriteMacBits);
  fields = {};
  fields.setVlanVid = fields.popVlan = 1;
  EXPECT_EQ(actionBits(action), kRewriteTagBits);
  fields = {};
  fields.setVlanPcp = 1;
  EXPECT_EQ(actionBits(action), kRewritePcpBit);
  fields = {};
  fields.setIpTos = fields.setIpv4Src = fields.setIpv4Dst = fields.decTtl = 1;
  EXPECT_EQ(actionBits(action), kRewriteIpBits);
  fields = {};
  fields.setL4SrcPort = fields.setL4DstPort = 1;
  fields.setIcmpType = fields.setIcmpCode = 1;
  EXPECT_EQ(actionBits(action), kRewriteL4Bits);

  fields = {};
  fields.setOutputAll = 1;
  EXPECT_EQ(actionBits(action), kOutputAllBit);
  fields.setOutputAll = 0, fields.setOutputFlood = 1;
  EXPECT_EQ(actionBits(action), kOutputFloodBit);
  fields.setOutputFlood = 0, fields.setOutputPort = 1;
  EXPECT_EQ(actionBits(action), kOutputPortBit);
  fields.setOutputPort = 0, fields.setOutputDrop = 1;
  EXPECT_EQ(actionBits(action), kOutputDropBit);
  fields.setOutputDrop = 0, fields.gotoTbl = 1;
  EXPECT_EQ(actionBits(action), kGotoBit);
  fields.setOutputDrop = 1;
  fields.setOutputAll = fields.setOutputFlood = fields.setOutputPort = 1;
  fields.setOutputInPort = fields.setOutputController = fields.gotoTbl = 1;
  EXPECT_EQ(actionBits(action), kOutputBits);
}

// Where the values lie, counted from the record's start.
enum At : size_t {
  kEthDst = 16,
  kEthSrc = 22,
  kVlanVid = 28,
  kVlanPcp = 30,
  kIpTos = 31,
  kIpv4Src = 32,
  kIpv4Dst = 36,
  kL4SrcPort = 40,
  kL4DstPort = 42,
  kIcmpType = 44,
  kIcmpCode = 45,
  kNextTbl = 46,
  kTrap = 47,
  kReason = 48,
  kNumGates = 49,
  kGates = 50,
};

struct Patch {
  size_t at;
  Bytes bytes;
};

struct ActionCase {
  const char* name;
  Flow flow;
  uint32_t bits;  // of the three flag bytes
  std::vector<Patch> values;
};

void PrintTo(const ActionCase& row, std::ostream* out) { *out << row.name; }

Flow flow() { return Flow(7, 100).counters(11, 12); }

// A flow whose message sets what the words of Flow do not say.
template <class Change>
Flow changed(Flow flow, Change change) {
  change(flow.message().mutable_action());
  return flow;
}

constexpr uint32_t bit(int number) { return uint32_t{1} << number; }

// `count` gates 0x10000 + i, of which the low 16 bits are taken.
std::vector<uint32_t> gates(uint32_t count) {
  std::vector<uint32_t> gates;
  for (uint32_t i = 0; i < count; i++) gates.push_back(0x10000 + i);
  return gates;
}

Bytes gateBytes(uint32_t count) {
  Bytes bytes;
  for (uint32_t i = 0; i < count; i++) {
    bytes.push_back(static_cast<uint8_t>(i));
    bytes.push_back(static_cast<uint8_t>(i >> 8));
  }
  return bytes;
}

const Mac kMac = mac("00:11:22:33:44:55");
const Bytes kMacBytes(kMac.begin(), kMac.end());

const ActionCase kActionCases[] = {
    {"Nothing", flow(), 0, {}},
    {"SetEthDst", flow().setEthDst(kMac), bit(0), {{kEthDst, kMacBytes}}},
    {"SetEthSrc", flow().setEthSrc(kMac), bit(1), {{kEthSrc, kMacBytes}}},
    {"AShortMacIsPadded",
     changed(flow().setEthDst(kMac).setEthSrc(kMac),
             [](quil::pb::OfAction* action) {
               action->mutable_values()->set_ethdst("\x01\x02\x03\x04\x05");
               action->mutable_values()->set_ethsrc("");
             }),
     bit(0) | bit(1),
     {{kEthDst, {1, 2, 3, 4, 5, 0}}}},
    {"ALongMacIsCut",
     changed(flow().setEthDst(kMac).setEthSrc(kMac),
             [](quil::pb::OfAction* action) {
               action->mutable_values()->set_ethdst(
                   "\x01\x02\x03\x04\x05\x06\x07");
               action->mutable_values()->set_ethsrc(std::string(200, '\x09'));
             }),
     bit(0) | bit(1),
     {{kEthDst, {1, 2, 3, 4, 5, 6}}, {kEthSrc, {9, 9, 9, 9, 9, 9}}}},
    {"SetVlanVid",
     flow().setVlanVid(0x1f064),
     bit(2),
     {{kVlanVid, {0xf0, 0x64}}}},
    {"SetVlanPcp", flow().setVlanPcp(5), bit(3), {{kVlanPcp, {5}}}},
    {"SetVlanPcpIsNotMasked", flow().setVlanPcp(9), bit(3), {{kVlanPcp, {9}}}},
    {"SetVlanPcpIsCutTo8Bits",
     flow().setVlanPcp(0x1ff),
     bit(3),
     {{kVlanPcp, {0xff}}}},
    {"OnesInEveryNumber",
     flow()
         .setVlanVid(0xffff)
         .setIpTos(0xff)
         .setIpv4Src(0xffffffff)
         .setIpv4Dst(0xffffffff)
         .setL4SrcPort(0xffff)
         .setL4DstPort(0xffff)
         .setIcmpType(0xff)
         .setIcmpCode(0xff)
         .output({0xffff})
         .trap(0xff)
         .gotoTable(0xff),
     bit(2) | 0x7f0 | bit(13) | bit(15) | bit(19),
     {{kVlanVid, {0xff, 0xff}},
      {kIpTos, Bytes(16, 0xff)},  // to the next table
      {kTrap, {1, 0xff, 1, 0xff, 0xff}}}},
    {"SetIpTos", flow().setIpTos(0x1b8), bit(4), {{kIpTos, {0xb8}}}},
    {"SetIpv4Src",
     flow().setIpv4Src(0x0a000001),
     bit(5),
     {{kIpv4Src, {10, 0, 0, 1}}}},
    {"SetIpv4Dst",
     flow().setIpv4Dst(0xc0a80102),
     bit(6),
     {{kIpv4Dst, {192, 168, 1, 2}}}},
    {"SetL4SrcPort",
     flow().setL4SrcPort(0x31234),
     bit(7),
     {{kL4SrcPort, {0x12, 0x34}}}},
    {"SetL4DstPort",
     flow().setL4DstPort(0x50050),
     bit(8),
     {{kL4DstPort, {0x00, 0x50}}}},
    {"SetIcmpType", flow().setIcmpType(0x108), bit(9), {{kIcmpType, {8}}}},
    {"SetIcmpCode", flow().setIcmpCode(0x203), bit(10), {{kIcmpCode, {3}}}},

    {"OutputAll",
     flow().outputAll({1, 2}),
     bit(11),
     {{kNumGates, {2}}, {kGates, {1, 0, 2, 0}}}},
    {"OutputFlood",
     flow().flood({0x1234}),
     bit(12),
     {{kNumGates, {1}}, {kGates, {0x34, 0x12}}}},
    {"OutputPort",
     flow().output({8191, 0, 70000}),
     bit(13),
     {{kNumGates, {3}}, {kGates, {0xff, 0x1f, 0, 0, 0x70, 0x11}}}},
    {"OutputPortWithoutGates", flow().output({}), bit(13), {}},
    {"AllBeforeFloodBeforePort",
     flow().outputAll({}).flood({}).output({3}),
     bit(11),
     {{kNumGates, {1}}, {kGates, {3, 0}}}},
    {"FloodBeforePort",
     flow().output({}).flood({4}),
     bit(12),
     {{kNumGates, {1}}, {kGates, {4, 0}}}},
    {"AllBeforePort",
     flow().output({}).outputAll({4}),
     bit(11),
     {{kNumGates, {1}}, {kGates, {4, 0}}}},
    {"SixtyFourGates",
     flow().output(gates(64)),
     bit(13),
     {{kNumGates, {64}}, {kGates, gateBytes(64)}}},
    {"GatesWithoutAList",
     changed(flow().decTtl(),
             [](quil::pb::OfAction* action) {
               action->mutable_values()->add_ogate(5);
             }),
     bit(18),
     {}},
    {"OutputInPort", flow().outputInPort(), bit(14), {}},
    {"OutputController", flow().controller(0x107), bit(15), {{kReason, {7}}}},
    {"OutputControllerTrap",
     flow().trap(9),
     bit(15),
     {{kTrap, {1}}, {kReason, {9}}}},
    {"OutputDrop", flow().drop(), bit(16), {}},
    {"PopVlan", flow().popVlan(), bit(17), {}},
    {"DecTtl", flow().decTtl(), bit(18), {}},
    {"GotoTable", flow().gotoTable(31), bit(19), {{kNextTbl, {31}}}},
    {"GotoTableIsCutNotChecked",
     flow().gotoTable(300),
     bit(19),
     {{kNextTbl, {44}}}},
    {"OutputAndDrop",
     flow().output({6}).drop(),
     bit(13) | bit(16),
     {{kNumGates, {1}}, {kGates, {6, 0}}}},
    {"ValuesWithoutFlags",
     changed(flow()
                 .setEthDst(kMac)
                 .setEthSrc(kMac)
                 .setVlanVid(1)
                 .setVlanPcp(1)
                 .setIpTos(1)
                 .setIpv4Src(1)
                 .setIpv4Dst(1)
                 .setL4SrcPort(1)
                 .setL4DstPort(1)
                 .setIcmpType(1)
                 .setIcmpCode(1)
                 .output({1})
                 .trap(1)
                 .gotoTable(1),
             [](quil::pb::OfAction* action) { action->clear_fields(); }),
     0,
     {}},
};

class MakeAction : public testing::TestWithParam<ActionCase> {
 protected:
  const Calls::Scope calls_;
  OpenFlow module_;
};

INSTANTIATE_TEST_SUITE_P(Actions, MakeAction, testing::ValuesIn(kActionCases),
                         [](const auto& row) { return row.param.name; });

TEST_P(MakeAction, WritesTheRecord) {
  const ActionCase& row = GetParam();
  OfFlowAction action;
  memset(static_cast<void*>(&action), 0, sizeof(action));
  module_.makeAction(row.flow.message(), &action);

  Bytes expected(sizeof(OfFlowAction), 0);
  expected[0] = 100;
  expected[4] = 11;
  expected[8] = 12;
  expected[12] = static_cast<uint8_t>(row.bits);
  expected[13] = static_cast<uint8_t>(row.bits >> 8);
  expected[14] = static_cast<uint8_t>(row.bits >> 16);
  for (const Patch& patch : row.values) {
    std::ranges::copy(patch.bytes, expected.begin() + patch.at);
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(&action);
  EXPECT_EQ(hexDump({bytes, bytes + sizeof(action)}), hexDump(expected));
}

TEST_F(MakeAction, CopiesNumbersUnchanged) {
  OfFlowAction action{};
  module_.makeAction(
      Flow(1, 0xfffffff0).counters(0x80000001, 0xffffffff).message(), &action);
  EXPECT_EQ(action.priority, 0xfffffff0u);
  EXPECT_EQ(action.packetCounterId, 0x80000001u);
  EXPECT_EQ(action.byteCounterId, 0xffffffffu);
}

TEST_F(MakeAction, ClearsNothing) {
  OfFlowAction action;
  memset(static_cast<void*>(&action), 0xff, sizeof(action));
  module_.makeAction(flow().setVlanPcp(1).message(), &action);
  const Bytes flags = {reinterpret_cast<uint8_t*>(&action.fields),
                       reinterpret_cast<uint8_t*>(&action.fields + 1)};
  EXPECT_EQ(hex(flags), "ffffff");
  EXPECT_EQ(action.values.vlanPcp, 1);
  EXPECT_EQ(action.values.numOutputGates, 0xff);
  EXPECT_EQ(action.values.ogate[0], 0xffff);
}

TEST_F(MakeAction, TracesTheFlow) {
  OfFlowAction action{};
  const TraceMark mark;
  module_.makeAction(Flow(0xfffffffe, 0x80000000).message(), &action);
  EXPECT_THAT(
      traced(mark),
      ElementsAre("2 makeAction flowId: 4294967294, priority: 2147483648"));
}

TEST_F(MakeAction, DumpsTheRecordAtLevel5) {
  OfFlowAction action{};
  const TextTrace text(1 << 5);
  const TraceMark mark;
  module_.makeAction(flow().setVlanPcp('5').output({17}).message(), &action);
  std::ostringstream fields, values;
  fields << action.fields;
  values << action.values;
  EXPECT_THAT(text.lines(), ElementsAre("Action fields: " + fields.str(),
                                        "Action values: " + values.str()));
  EXPECT_THAT(traced(mark), ElementsAre("2 makeAction flowId: 7, priority: 100",
                                        "5 Action fields: " + fields.str(),
                                        "5 Action values: " + values.str()));
}

// Copies for a classifier.

class MakeAclUserdata : public testing::Test {
 protected:
  const Calls::Scope calls_;
  OpenFlow module_;
};

constexpr const char* kUserdataTrace =
    "2 void OpenFlow::makeAclUserdata(OfFlowAction*, KoAclUserdata*): ";

TEST_F(MakeAclUserdata, HangsACopyOnTheRecord) {
  OfFlowAction action{};
  module_.makeAction(flow().setIpv4Src(0x0a000001).output(gates(64)).message(),
                     &action);
  QuilModules::KoAclUserdata userdata{};
  const TraceMark mark;
  module_.makeAclUserdata(&action, &userdata);
  EXPECT_THAT(traced(mark), ElementsAre(kUserdataTrace));

  const auto made = Calls::allocations("openflowuserdata");
  ASSERT_EQ(made.size(), 1u);
  EXPECT_EQ(made[0].size, sizeof(OfFlowAction));
  EXPECT_EQ(made[0].align, 64u);
  EXPECT_FALSE(made[0].zeroed);
  EXPECT_EQ(userdata.action, made[0].result);
  EXPECT_NE(userdata.action, &action);
  EXPECT_EQ(memcmp(userdata.action, &action, sizeof(action)), 0);
  EXPECT_EQ(userdata.word0, 0u);
  EXPECT_EQ(userdata.word2, 0u);
  EXPECT_EQ(userdata.word3, 0u);
  EXPECT_EQ(userdata.word4, 0u);
  EXPECT_EQ(offsetof(QuilModules::KoAclUserdata_, action), 8u);
  EXPECT_EQ(sizeof(QuilModules::KoAclUserdata_), 40u);
  rte_free(userdata.action);
}

TEST_F(MakeAclUserdata, WithoutMemoryLeavesTheRecordNull) {
  OfFlowAction action{};
  QuilModules::KoAclUserdata userdata{};
  Calls::state().failType = "openflowuserdata";
  Calls::state().failMalloc = Calls::Fault::every();
  const TraceMark mark;
  module_.makeAclUserdata(&action, &userdata);
  EXPECT_THAT(
      traced(mark),
      ElementsAre(kUserdataTrace,
                  "0 makeAclUserdata Failed to allocate memory for userdata "
                  "action"));
  EXPECT_EQ(userdata.action, nullptr);
}

}  // namespace
}  // namespace openflow_test
