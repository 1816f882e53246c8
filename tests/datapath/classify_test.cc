// SPDX-License-Identifier: BSD-3-Clause
//
// Which flow a packet gets: masks, priorities within and between the families,
// and what happens when a family or the whole table has no classifier.
#include "tests/datapath/datapath_test.h"

namespace openflow_test {
namespace {

const Frame kTcp6 = Frame::eth().ipv6(kIp6A, kIp6B).tcp(7, 80);

// ---- One flow, one frame: does it match?

struct MatchCase {
  const char* name;
  Family family;
  Flow flow;
  InputPacket packet;
  bool hit;
};

void PrintTo(const MatchCase& row, std::ostream* out) { *out << row.packet; }

class Match : public DataPath,
              public ::testing::WithParamInterface<MatchCase> {};

TEST_P(Match, HitOrMiss) {
  Flow flow = GetParam().flow;
  add(0, {flow.counters(kPackets, kByteCount).output({3})}, GetParam().family);
  const RunResult result = run({GetParam().packet});
  EXPECT_EQ(result.gate(3).size(), GetParam().hit ? 1u : 0u);
  EXPECT_EQ(result.table(0).tableMisses, GetParam().hit ? 0u : 1u);
  EXPECT_EQ(result.flowCounters.count(kPackets), GetParam().hit ? 1u : 0u);
  EXPECT_EQ(result.drops, 1u);
}

constexpr Family k4 = Family::kIpv4;
constexpr Family k6 = Family::kIpv6;

Flow any() { return Flow(1, 5); }

Frame tagged(uint16_t vid, uint8_t pcp) {
  return Frame::eth().vlan(vid, pcp).ipv4(kIpA, kIpB).tcp(7, 80);
}

InputPacket withMetadata(uint64_t value) {
  return InputPacket(tcpFrame(), MetadataBlock{}.withMetadata(value));
}

Flow shortIp6(size_t valueBytes, size_t maskBytes) {
  Flow flow = any().ipv6Dst(kIp6B);
  auto* values = flow.message().mutable_match()->mutable_values();
  values->mutable_ipv6dst()->resize(valueBytes);
  values->mutable_ipv6dstmask()->resize(maskBytes);
  return flow;
}

Flow longIp6() {
  Flow flow = any().ipv6Dst(kIp6B);
  auto* values = flow.message().mutable_match()->mutable_values();
  values->mutable_ipv6dst()->append("tail");
  values->mutable_ipv6dstmask()->append("tail");
  return flow;
}

const MatchCase kMatchCases[] = {
    {"NoMatchFieldsIpv4Packet", k4, any(), tcpFrame(), true},
    {"NoMatchFieldsIpv6Packet", k4, any(), kTcp6, true},
    {"NoMatchFieldsIpv6Family", k6, any(), tcpFrame(), true},
    {"NoMatchFieldsLlc", k4, any(), Frame::eth().llc(0x42, 0x42).payload(40),
     true},
    {"NoMatchFieldsEmptyFrame", k4, any(), InputPacket(Bytes{}), true},
    {"Ipv4FlowOfL2FieldsIpv6Packet", k4, any().ethDst(kDstMac), kTcp6, true},
    {"Ipv6FlowOfL2FieldsIpv4Packet", k6, any().ethDst(kDstMac), tcpFrame(),
     true},
    {"Ipv4FlowIpv6Type", k4, any().ethType(0x86dd), kTcp6, true},
    {"Ipv4FlowSeesNoIpv6Proto", k4, any().ipProto(6), kTcp6, false},
    {"Ipv6FlowSeesNoIpv4Proto", k6, any().ipProto(6), tcpFrame(), false},
    {"Ipv4FlowSeesNoIpv6Port", k4, any().l4DstPort(80), kTcp6, false},
    {"PortZeroOfOtherFamily", k4, any().l4DstPort(0), kTcp6, true},
    {"EthDstGroupBit", k4,
     any().ethDst(mac("01:00:00:00:00:00"), mac("01:00:00:00:00:00")),
     Frame::eth(mac("33:33:00:00:00:01")).ipv6(kIp6A, kIp6B).udp(1, 2), true},
    {"EthDstGroupBitClear", k4,
     any().ethDst(mac("01:00:00:00:00:00"), mac("01:00:00:00:00:00")),
     tcpFrame(), false},
    {"EthSrcLastTwoBytes", k4,
     any().ethSrc(mac("00:00:00:00:00:05"), mac("00:00:00:00:ff:ff")),
     tcpFrame(), true},
    {"EthSrcLastByteDiffers", k4,
     any().ethSrc(mac("00:00:00:00:00:06"), mac("00:00:00:00:ff:ff")),
     tcpFrame(), false},
    {"LlcFrameHasTypeZero", k4, any().ethType(0),
     Frame::eth().llc(0x42, 0x42).payload(40), true},
    {"LlcFrameHasNoProto", k4, any().ipProto(6),
     Frame::eth().llc(0x42, 0x42).payload(40), false},
    {"VlanVid", k4, any().vlanVid(5), tagged(5, 3), true},
    {"VlanVidOther", k4, any().vlanVid(5), tagged(6, 3), false},
    {"VlanVidWholeTag", k4, any().vlanVid(0x6005, 0xffff), tagged(5, 3), true},
    {"VlanVidZeroUntagged", k4, any().vlanVid(0), tcpFrame(), true},
    {"VlanVidMasked", k4, any().vlanVid(0x0100, 0x0f00), tagged(0x1ab, 0),
     true},
    {"VlanVidValueOutsideMask", k4, any().vlanVid(0xf005, 0x0fff), tagged(5, 0),
     true},
    {"VlanPcp", k4, any().vlanPcp(3), tagged(5, 3), true},
    {"VlanPcpOther", k4, any().vlanPcp(3), tagged(5, 2), false},
    {"VlanPcpZeroUntagged", k4, any().vlanPcp(0), tcpFrame(), true},
    {"VlanVidAndPcp", k4, any().vlanVid(100).vlanPcp(5), tagged(100, 5), true},
    {"VlanVidAndPcpOtherPcp", k4, any().vlanVid(100).vlanPcp(5), tagged(100, 4),
     false},
    {"VlanPcpNineIsOne", k4, any().vlanPcp(9), tagged(5, 1), true},
    {"Ipv4SrcNet", k4, any().ipv4Src(ip4("10.0.0.0"), 0xffffff00), tcpFrame(),
     true},
    {"Ipv4SrcOtherNet", k4, any().ipv4Src(ip4("10.0.1.0"), 0xffffff00),
     tcpFrame(), false},
    {"Ipv4DstHostBitsUnderMask", k4,
     any().ipv4Dst(ip4("10.0.0.77"), 0xffffff00), tcpFrame(), true},
    {"Ipv4DstOddMask", k4, any().ipv4Dst(ip4("99.0.99.2"), 0x00ff00ff),
     tcpFrame(), true},
    {"Ipv4FlowIgnoresIpv6Fields", k4, any().ipv6Src(ip6("::1")), tcpFrame(),
     true},
    {"Ipv6FlowIgnoresIpv4Fields", k6, any().ipv4Src(1).ipv4Dst(2).arpTpa(3),
     kTcp6, true},
    {"Ipv6DstNet", k6, any().ipv6Dst(ip6("2001:db8::"), ip6("ffff:ffff::")),
     kTcp6, true},
    {"Ipv6DstOtherNet", k6,
     any().ipv6Dst(ip6("2001:db9::"), ip6("ffff:ffff::")), kTcp6, false},
    {"Ipv6DstLastWord", k6, any().ipv6Dst(ip6("::2"), ip6("::ffff:ffff")),
     kTcp6, true},
    {"Ipv6DstShortIsPaddedWithZeros", k6, shortIp6(15, 16), kTcp6, false},
    {"Ipv6DstMaskShortIsPaddedWithZeros", k6, shortIp6(4, 4), kTcp6, true},
    {"Ipv6DstLongIsCut", k6, longIp6(), kTcp6, true},
    {"Tos", k4, any().ipTos(0xb8), tcpFrame().tos(0xb8), true},
    {"TosMaskedDscp", k4, any().ipTos(0xb8, 0xfc), tcpFrame().tos(0xbb), true},
    {"TosOther", k4, any().ipTos(0xb8, 0xfc), tcpFrame().tos(0xb4), false},
    {"TtlMasked", k4, any().ipTtl(0, 0xfe), tcpFrame().ttl(1), true},
    {"TtlMaskedOther", k4, any().ipTtl(0, 0xfe), tcpFrame().ttl(2), false},
    {"HopLimit", k6, any().ipTtl(64), kTcp6, true},
    {"TcpSyn", k4, any().tcpFlags(0x02, 0x02),
     Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80, 0x12), true},
    {"TcpNoSyn", k4, any().tcpFlags(0x02, 0x02),
     Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80, 0x10), false},
    {"IcmpEchoReply", k4, any().ipProto(1).icmpType(0).icmpCode(0),
     Frame::eth().ipv4(kIpA, kIpB).icmp(0, 0), true},
    {"IcmpTypeOther", k4, any().icmpType(8),
     Frame::eth().ipv4(kIpA, kIpB).icmp(0, 0), false},
    {"Icmpv6", k6, any().icmpType(135),
     Frame::eth().ipv6(kIp6A, kIp6B).icmp(135, 0), true},
    {"HopByHopHasNoPorts", k6, any().l4DstPort(80), Frame(kTcp6).hopByHop(),
     false},
    {"HopByHopProto", k6, any().ipProto(0), Frame(kTcp6).hopByHop(), true},
    {"ArpTarget", k4, any().arpTpa(ip4("10.0.0.0"), 0xffffff00),
     Frame::eth().arp(kIpA, kIpB), true},
    {"ArpTargetOther", k4, any().arpTpa(kIpA), Frame::eth().arp(kIpA, kIpB),
     false},
    {"Metadata", k4, any().metadata(0x1122334455667788),
     withMetadata(0x1122334455667788), true},
    {"MetadataHighHalfOther", k4, any().metadata(0x1122334455667788),
     withMetadata(0x1122334555667788), false},
    {"MetadataLowHalfOther", k4, any().metadata(0x1122334455667788),
     withMetadata(0x1122334455667789), false},
    {"MetadataIpv6", k6, any().metadata(0xff00000000000001),
     withMetadata(0xff00000000000001), true},
    {"MetadataNotValidIsZero", k4, any().metadata(0),
     InputPacket(tcpFrame(), MetadataBlock{.metadata = 7}), true},
    {"MetadataNotValid", k4, any().metadata(7),
     InputPacket(tcpFrame(), MetadataBlock{.metadata = 7}), false},
    {"WideValuesAreCut", k4,
     any().ethType(0x10800).ipProto(0x106).l4DstPort(0x10050).ipTtl(0x140),
     tcpFrame(), true},
};

INSTANTIATE_TEST_SUITE_P(Rows, Match, ::testing::ValuesIn(kMatchCases),
                         rowName);

// ---- Several flows: which one?

class Priority : public DataPath {};

TEST_F(Priority, HigherOneOfAFamilyWins) {
  add(0, {Flow(1, 10).output({1}), Flow(2, 30).ipProto(6).output({2}),
          Flow(3, 20).ethType(0x0800).output({3})});
  const RunResult result =
      run({tcpFrame(), Frame::eth().ipv4(kIpA, kIpB).udp(1, 2),
           Frame::eth().arp(kIpA, kIpB)});
  EXPECT_EQ(result.gate(2).size(), 1u);
  EXPECT_EQ(result.gate(3).size(), 1u);
  EXPECT_EQ(result.gate(1).size(), 1u);
  EXPECT_EQ(result.drops, 3u);
}

TEST_F(Priority, HigherIpv4FlowBeatsIpv6) {
  add(0, {Flow(1, 11).output({1})}, k4);
  add(0, {Flow(1, 10).output({2})}, k6);
  runOne(tcpFrame(), 1);
  runOne(kTcp6, 1);
}

TEST_F(Priority, HigherIpv6FlowBeatsIpv4) {
  add(0, {Flow(1, 10).output({1})}, k4);
  add(0, {Flow(1, 11).output({2})}, k6);
  runOne(tcpFrame(), 2);
}

TEST_F(Priority, EqualPriorityGoesToIpv6) {
  add(0, {Flow(1, 10).output({1})}, k4);
  add(0, {Flow(1, 10).output({2})}, k6);
  runOne(tcpFrame(), 2);
  runOne(kTcp6, 2);
}

TEST_F(Priority, FamilyThatDoesNotMatchHasNoSay) {
  add(0, {Flow(1, 10).ipProto(6).output({1})}, k4);
  add(0, {Flow(1, 99).ipProto(17).output({2})}, k6);
  runOne(tcpFrame(), 1);
}

TEST_F(Priority, ZeroIsAMissNotALackOfClassifier) {
  add(0, {Flow(1, 0).counters(kPackets, kByteCount).output({1})});
  EXPECT_EQ(harness().stats(0).numflows(), 1u);
  const RunResult result = run({tcpFrame(), kTcp6});
  EXPECT_EQ(result.numEmitted(), 0u);
  EXPECT_EQ(result.table(0).tableMisses, 2u);
  EXPECT_EQ(result.table(0).noClassifier, 0u);
  EXPECT_EQ(result.drops, 2u);
  EXPECT_TRUE(result.flowCounters.empty());
}

TEST_F(Priority, ZeroLosesToEveryOther) {
  add(0, {Flow(1, 0).output({1}), Flow(2, 1).ipProto(6).output({2}),
          Flow(3, 2).ipProto(17).output({3})});
  runOne(tcpFrame(), 2);
  runOne(Frame::eth().ipv4(kIpA, kIpB).udp(1, 2), 3);
  EXPECT_EQ(run({Frame::eth().arp(kIpA, kIpB)}).table(0).tableMisses, 1u);
}

TEST_F(Priority, ZeroOfOneFamilyYieldsToTheOther) {
  add(0, {Flow(1, 0).output({1})}, k6);
  add(0, {Flow(1, 1).output({2})}, k4);
  runOne(tcpFrame(), 2);
}

TEST_F(Priority, ZeroIsAMissBesideAFamilyThatDoesNotMatch) {
  for (const Family zero : {k4, k6}) {
    const Family other = zero == k4 ? k6 : k4;
    add(0, {Flow(1, 0).output({1})}, zero);
    add(0, {Flow(1, 5).ipProto(17).output({2})}, other);
    EXPECT_EQ(run({tcpFrame()}).table(0).tableMisses, 1u);
    add(0, {Flow(1, 0).output({2})}, other);
    EXPECT_EQ(run({tcpFrame()}).table(0).tableMisses, 1u);
  }
}

TEST_F(Priority, ZeroBesideTheHighest) {
  constexpr uint32_t kHighest = (1u << 29) - 1;
  add(0, {Flow(1, 0).output({1}), Flow(2, kHighest).ipProto(6).output({2}),
          Flow(3, 1).output({3})});
  runOne(tcpFrame(), 2);
  runOne(kTcp6, 3);
}

TEST_F(Priority, ZeroGoesAwayAndRulesStand) {
  add(0, {Flow(1, 0).output({1}), Flow(2, 7).output({2})});
  harness().deleteFlows(0, {1});
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.add_deletes()->set_flowid(1);
  EXPECT_EQ(twin().updateFlows(arg), 0);
  runOne(tcpFrame(), 2);
}

// ---- Tables that cannot classify.

class NoClassifier : public DataPath {};

TEST_F(NoClassifier, EmptyTableDropsTheBatchAtOnce) {
  const RunResult result = run(std::vector<InputPacket>(5, tcpFrame()));
  EXPECT_EQ(result.table(0).noClassifier, 1u);
  EXPECT_EQ(result.table(0).batchDrops, 1u);
  EXPECT_EQ(result.table(0).tableMisses, 0u);
  EXPECT_EQ(result.drops, 0u);  // freed, not dropped packet by packet
  EXPECT_EQ(result.leakedPackets, 0);
}

TEST_F(NoClassifier, OneFamilyIsEnough) {
  add(0, {Flow(1, 5).ipProto(17).output({1})}, k6);
  const RunResult result = run({tcpFrame()});
  EXPECT_EQ(result.table(0).tableMisses, 1u);
  EXPECT_EQ(result.table(0).noClassifier, 0u);
  EXPECT_EQ(result.drops, 1u);
}

TEST_F(NoClassifier, DeletedFlowsLeaveNone) {
  add(0, {Flow(1, 5).output({1})});
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.add_deletes()->set_flowid(1);
  update(arg);
  const RunResult result = run({tcpFrame()});
  EXPECT_EQ(result.table(0).noClassifier, 1u);
  EXPECT_EQ(result.table(0).batchDrops, 1u);
}

TEST_F(NoClassifier, FlowTypeSevenIsIpv4) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(7));
  *arg.add_adds() = Flow(1, 5).ipProto(6).output({4}).message();
  update(arg);
  EXPECT_EQ(harness().stats(0).numflows(), 1u);
  EXPECT_EQ(harness().stats(0).numipv6flows(), 0u);
  runOne(tcpFrame(), 4);
}

// ---- Tables that are not bound, and bindings that change.

TEST(Binding, UnboundTableDropsTheBatchAtOnce) {
  const HarnessOptions options{.bindTables = false};
  ModuleHarness harness(options);
  ReferenceModule twin(options);
  const std::vector<InputPacket> packets(3, tcpFrame());
  const RunResult result = harness.run(packets);
  EXPECT_EQ(result, twin.run(packets));
  EXPECT_EQ(result.table(0).noAclCtx, 1u);
  EXPECT_EQ(result.table(0).batchDrops, 1u);
  EXPECT_EQ(result.table(0).noClassifier, 0u);
  EXPECT_EQ(result.drops, 0u);
  EXPECT_EQ(result.leakedPackets, 0);
}

TEST(Binding, UpdateBeforeBindingIsPublishedByTheNextOne) {
  ModuleHarness harness({.bindTables = false});
  quil::pb::OpenFlowUpdateFlowsArg arg;
  *arg.add_adds() = Flow(1, 5).output({1}).message();
  const auto response = harness.updateFlows(arg);
  EXPECT_EQ(response.error().code(), -1);
  EXPECT_EQ(response.error().errmsg(), "Failed to update flows");
  EXPECT_EQ(harness.stats(0).numflows(), 1u);
  EXPECT_EQ(harness.stats(0).updatefailures(), 1u);

  harness.setAclIds(0, 40, 41);
  EXPECT_EQ(harness.run({tcpFrame()}).table(0).noClassifier, 1u);
  harness.addFlows(0, {});
  const RunResult result = harness.run({tcpFrame()});
  EXPECT_EQ(result.gate(1).size(), 1u);
  EXPECT_EQ(result.drops, 1u);
}

TEST(Binding, NewSlotsStartWithWhatTheyPublish) {
  ModuleHarness harness;
  harness.addFlows(0, {Flow(1, 5).output({1})});
  harness.addFlows(1, {Flow(1, 5).output({2})});
  harness.setAclIds(0, 2, 3);  // the slots of table 1
  EXPECT_EQ(harness.run({tcpFrame()}).gate(2).size(), 1u);
  harness.setAclIds(0, 100, 101);
  EXPECT_EQ(harness.run({tcpFrame()}).table(0).noClassifier, 1u);
  harness.setAclIds(0, 0, 1);
  EXPECT_EQ(harness.run({tcpFrame()}).gate(1).size(), 1u);
}

}  // namespace
}  // namespace openflow_test
