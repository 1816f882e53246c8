// SPDX-License-Identifier: BSD-3-Clause
//
// A flow's match becomes a rule record; compared byte for byte.
#include <cstring>
#include <map>
#include <optional>

#include "tests/control/control_test.h"

namespace openflow_test {
namespace {

using testing::ElementsAre;

// A field's value and mask, by index.
struct Content {
  uint64_t value;
  uint64_t mask;
};
using Fields = std::map<int, Content>;

// A rule record as it must be: 16 bytes of header, then value and mask of each
// field, 8 bytes each.
template <typename FLOW_TYPE>
Bytes record(uint32_t priority, const Fields& fields) {
  Bytes bytes(sizeof(FLOW_TYPE), 0);
  bytes[0] = 1;
  memcpy(&bytes[4], &priority, sizeof(priority));
  for (const auto& [index, content] : fields) {
    memcpy(&bytes[16 + 16 * index], &content.value, 8);
    memcpy(&bytes[24 + 16 * index], &content.mask, 8);
  }
  return bytes;
}

template <typename FLOW_TYPE>
Bytes bytesOf(const FLOW_TYPE& rule) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&rule);
  return {bytes, bytes + sizeof(rule)};
}

const Mac kMac = mac("00:11:22:33:44:55");
const Mac kMacMask = mac("ff:fe:fd:fc:fb:fa");
const Ip6 kIp6 = ip6("2001:db8:8765:4321:0123:4567:89ab:cdef");
const Ip6 kIp6Mask = ip6("ffff:ffff:0:ff00:8000:0:0:1");

struct RuleCase {
  const char* name;
  Flow flow;
  Fields ipv4;
  std::optional<Fields> ipv6;  // when it is not the same
};

void PrintTo(const RuleCase& row, std::ostream* out) { *out << row.name; }

Flow flow() { return Flow(7, 100); }

const RuleCase kRuleCases[] = {
    {"Nothing", flow(), {}, {}},
    {"Priority", Flow(7, 0x1fffffff), {}, {}},
    {"PriorityIsStoredUnchanged", Flow(7, 0xffffffff), {}, {}},
    {"PriorityZero", Flow(7, 0), {}, {}},

    {"OnesInEveryNumber",
     flow()
         .ipProto(0xff)
         .vlanVid(0xffff, 0xffff)
         .ethType(0xffff)
         .l4SrcPort(0xffff)
         .l4DstPort(0xffff)
         .ipTos(0xff, 0xff)
         .ipTtl(0xff, 0xff)
         .icmpType(0xff)
         .icmpCode(0xff)
         .tcpFlags(0xff, 0xff)
         .metadata(~uint64_t{0}),
     {{0, {0xff, 0xff}},
      {5, {0xffff, 0xffff}},
      {6, {0xffff, 0xffff}},
      {10, {0xffff, 0xffff}},
      {11, {0xffff, 0xffff}},
      {12, {0xff, 0xff}},
      {13, {0xff, 0xff}},
      {14, {0xff, 0xff}},
      {15, {0xff, 0xff}},
      {16, {0xff, 0xff}},
      {19, {0xffffffff, 0xffffffff}},
      {20, {0xffffffff, 0xffffffff}}},
     Fields{{0, {0xff, 0xff}},
            {5, {0xffff, 0xffff}},
            {6, {0xffff, 0xffff}},
            {15, {0xffff, 0xffff}},
            {16, {0xffff, 0xffff}},
            {17, {0xff, 0xff}},
            {18, {0xff, 0xff}},
            {19, {0xff, 0xff}},
            {20, {0xff, 0xff}},
            {21, {0xff, 0xff}},
            {24, {0xffffffff, 0xffffffff}},
            {25, {0xffffffff, 0xffffffff}}}},

    {"IpProto", flow().ipProto(17), {{0, {17, 0xff}}}, {}},
    {"IpProtoIsCut", flow().ipProto(0x1206), {{0, {6, 0xff}}}, {}},
    {"EthSrc",
     flow().ethSrc(kMac),
     {{1, {0x00112233, 0xffffffff}}, {2, {0x44550000, 0xffff0000}}},
     {}},
    {"EthSrcMasked",
     flow().ethSrc(kMac, kMacMask),
     {{1, {0x00112233, 0xfffefdfc}}, {2, {0x44550000, 0xfbfa0000}}},
     {}},
    {"EthDst",
     flow().ethDst(kMac),
     {{3, {0x00112233, 0xffffffff}}, {4, {0x44550000, 0xffff0000}}},
     {}},
    {"EthDstMasked",
     flow().ethDst(kMac, kMacMask),
     {{3, {0x00112233, 0xfffefdfc}}, {4, {0x44550000, 0xfbfa0000}}},
     {}},
    {"VlanVid", flow().vlanVid(100), {{5, {100, 0x0fff}}}, {}},
    {"VlanVidIsNotLimitedTo12Bits",
     flow().vlanVid(0x1f234, 0x5f0ff),
     {{5, {0xf234, 0xf0ff}}},
     {}},
    {"VlanPcpAlone", flow().vlanPcp(5), {{5, {0xa000, 0xe000}}}, {}},
    {"VlanVidAndPcp",
     flow().vlanVid(100).vlanPcp(5),
     {{5, {0xa064, 0xefff}}},
     {}},
    {"VlanPcpJoinsWhatTheVidSet",
     flow().vlanVid(0x4001, 0x4001).vlanPcp(1),
     {{5, {0x6001, 0xe001}}},
     {}},
    {"VlanPcpIsCut", flow().vlanPcp(9), {{5, {0x2000, 0xe000}}}, {}},
    {"EthType", flow().ethType(0x86dd), {{6, {0x86dd, 0xffff}}}, {}},
    {"EthTypeIsCut", flow().ethType(0x70800), {{6, {0x0800, 0xffff}}}, {}},

    {"ArpTpa",
     flow().arpTpa(0x0a000001),
     {{7, {0x0a000001, 0xffffffff}}},
     Fields{}},
    {"Ipv4Src",
     flow().ipv4Src(0x0a000102, 0xffffff00),
     {{8, {0x0a000102, 0xffffff00}}},
     Fields{}},
    {"Ipv4Dst",
     flow().ipv4Dst(0xc0a80001, 0xff00ff00),
     {{9, {0xc0a80001, 0xff00ff00}}},
     Fields{}},
    {"Ipv6Src",
     flow().ipv6Src(kIp6, kIp6Mask),
     {},
     Fields{{7, {0x20010db8, 0xffffffff}},
            {8, {0x87654321, 0x0000ff00}},
            {9, {0x01234567, 0x80000000}},
            {10, {0x89abcdef, 0x00000001}}}},
    {"Ipv6Dst",
     flow().ipv6Dst(kIp6, kIp6Mask),
     {},
     Fields{{11, {0x20010db8, 0xffffffff}},
            {12, {0x87654321, 0x0000ff00}},
            {13, {0x01234567, 0x80000000}},
            {14, {0x89abcdef, 0x00000001}}}},

    {"L4SrcPort",
     flow().l4SrcPort(0x10050),
     {{10, {0x50, 0xffff}}},
     Fields{{15, {0x50, 0xffff}}}},
    {"L4DstPort",
     flow().l4DstPort(0x2ffff),
     {{11, {0xffff, 0xffff}}},
     Fields{{16, {0xffff, 0xffff}}}},
    {"IpTos",
     flow().ipTos(0x1b8, 0x3fc),
     {{12, {0xb8, 0xfc}}},
     Fields{{17, {0xb8, 0xfc}}}},
    {"IpTtl",
     flow().ipTtl(0x140, 0x1f0),
     {{13, {0x40, 0xf0}}},
     Fields{{18, {0x40, 0xf0}}}},
    {"IcmpType",
     flow().icmpType(0x108),
     {{14, {8, 0xff}}},
     Fields{{19, {8, 0xff}}}},
    {"IcmpCode",
     flow().icmpCode(0x103),
     {{15, {3, 0xff}}},
     Fields{{20, {3, 0xff}}}},
    {"TcpFlags",
     flow().tcpFlags(0x112, 0x13f),
     {{16, {0x12, 0x3f}}},
     Fields{{21, {0x12, 0x3f}}}},
    {"Metadata",
     flow().metadata(0x1122334455667788),
     {{19, {0x88776655, 0xffffffff}}, {20, {0x44332211, 0xffffffff}}},
     Fields{{24, {0x88776655, 0xffffffff}}, {25, {0x44332211, 0xffffffff}}}},
    {"MetadataZero",
     flow().metadata(0),
     {{19, {0, 0xffffffff}}, {20, {0, 0xffffffff}}},
     Fields{{24, {0, 0xffffffff}}, {25, {0, 0xffffffff}}}},

    {"ValuesOutsideTheMaskAreKept",
     flow().ipv4Dst(0x0a0000ff, 0xffffff00).tcpFlags(0xff, 0x02),
     {{9, {0x0a0000ff, 0xffffff00}}, {16, {0xff, 0x02}}},
     Fields{{21, {0xff, 0x02}}}},
    {"MasksOfZero",
     flow().ethSrc(kMac, {}).ipTos(7, 0).vlanVid(3, 0),
     {{1, {0x00112233, 0}}, {2, {0x44550000, 0}}, {5, {3, 0}}, {12, {7, 0}}},
     Fields{{1, {0x00112233, 0}},
            {2, {0x44550000, 0}},
            {5, {3, 0}},
            {17, {7, 0}}}},
};

class MakeAclRule : public testing::TestWithParam<RuleCase> {
 protected:
  const Calls::Scope calls_;
  OpenFlow module_;
};

INSTANTIATE_TEST_SUITE_P(Matches, MakeAclRule, testing::ValuesIn(kRuleCases),
                         [](const auto& row) { return row.param.name; });

TEST_P(MakeAclRule, WritesTheIpv4Record) {
  const RuleCase& row = GetParam();
  of_flow_acl_rule rule{};
  module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV4, row.flow.message(), &rule);
  EXPECT_EQ(bytesOf(rule),
            record<of_flow_acl_rule>(row.flow.message().priority(), row.ipv4));
}

TEST_P(MakeAclRule, WritesTheIpv6Record) {
  const RuleCase& row = GetParam();
  of_flow_acl_rule_ipv6 rule{};
  module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV6, row.flow.message(), &rule);
  EXPECT_EQ(bytesOf(rule),
            record<of_flow_acl_rule_ipv6>(row.flow.message().priority(),
                                          row.ipv6.value_or(row.ipv4)));
}

TEST_P(MakeAclRule, IgnoresValuesWithoutTheirFlags) {
  Flow flow = GetParam().flow;
  flow.message().mutable_match()->clear_fields();
  of_flow_acl_rule rule{};
  of_flow_acl_rule_ipv6 ipv6Rule{};
  module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV4, flow.message(), &rule);
  module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV6, flow.message(), &ipv6Rule);
  const uint32_t priority = flow.message().priority();
  EXPECT_EQ(bytesOf(rule), record<of_flow_acl_rule>(priority, {}));
  EXPECT_EQ(bytesOf(ipv6Rule), record<of_flow_acl_rule_ipv6>(priority, {}));
}

TEST_F(MakeAclRule, TakesEveryOtherTypeForIpv4) {
  for (const int flowType : {0, 2, 7, -1, 0x7fffffff}) {
    of_flow_acl_rule_ipv6 memory{};  // room for both
    module_.makeAclRule(static_cast<quil::pb::OpenFlowType>(flowType),
                        flow().ipv4Src(1, 2).l4SrcPort(3).message(), &memory);
    of_flow_acl_rule rule;
    memcpy(&rule, &memory, sizeof(rule));
    EXPECT_EQ(bytesOf(rule),
              record<of_flow_acl_rule>(100, {{8, {1, 2}}, {10, {3, 0xffff}}}))
        << flowType;
  }
}

TEST_F(MakeAclRule, WritesHeaderPresentFieldsAndPaddingOnly) {
  of_flow_acl_rule rule;
  memset(&rule, 0x5a, sizeof(rule));
  module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV4,
                      flow().ipv4Src(1, 2).message(), &rule);
  EXPECT_EQ(rule.data.category_mask, 1u);
  EXPECT_EQ(rule.data.priority, 100);
  EXPECT_EQ(rule.data.userdata, 0x5a5a5a5au) << "set by each build";
  for (int i = 0; i < 21; i++) {
    SCOPED_TRACE(i);
    const rte_acl_field& field = rule.field[i];
    if (i == 8) {
      EXPECT_EQ(field.value.u32, 1u);
      EXPECT_EQ(field.mask_range.u32, 2u);
    } else if (i == 17) {
      EXPECT_EQ(field.value.u8, 0);
      EXPECT_EQ(field.mask_range.u8, 0);
    } else if (i == 18) {
      EXPECT_EQ(field.value.u16, 0);
      EXPECT_EQ(field.mask_range.u16, 0);
    } else {
      EXPECT_EQ(field.value.u64, 0x5a5a5a5a5a5a5a5au);
      EXPECT_EQ(field.mask_range.u64, 0x5a5a5a5a5a5a5a5au);
    }
  }
}

// Addresses that are not 16 bytes long: padded with zeros, or cut.
TEST_F(MakeAclRule, TakesSixteenBytesOfAnIpv6Address) {
  Flow flow = openflow_test::Flow(7, 100);
  auto* match = flow.message().mutable_match();
  match->mutable_fields()->set_ipv6src(true);
  match->mutable_fields()->set_ipv6dst(true);
  match->mutable_values()->set_ipv6src("\x20\x01\x0d\xb8\x01\x02");
  match->mutable_values()->set_ipv6srcmask(std::string(17, '\xff'));
  match->mutable_values()->set_ipv6dst(
      "\x01\x02\x03\x04"
      "\x05\x06\x07\x08"
      "\x09\x0a\x0b\x0c"
      "\x0d\x0e\x0f\x10"
      "\x11\x12\x13\x14");
  of_flow_acl_rule_ipv6 rule{};
  module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV6, flow.message(), &rule);
  EXPECT_EQ(bytesOf(rule),
            record<of_flow_acl_rule_ipv6>(100, {{7, {0x20010db8, 0xffffffff}},
                                                {8, {0x01020000, 0xffffffff}},
                                                {9, {0, 0xffffffff}},
                                                {10, {0, 0xffffffff}},
                                                {11, {0x01020304, 0}},
                                                {12, {0x05060708, 0}},
                                                {13, {0x090a0b0c, 0}},
                                                {14, {0x0d0e0f10, 0}}}));
}

TEST_F(MakeAclRule, PadsAnIpv6AddressOfAnyLength) {
  for (uint32_t length = 0; length < 18; length++) {
    Flow flow(7, 100);
    auto* match = flow.message().mutable_match();
    match->mutable_fields()->set_ipv6dst(true);
    uint32_t words[4] = {};
    for (uint32_t i = 0; i < length; i++) {
      match->mutable_values()->mutable_ipv6dst()->push_back(
          static_cast<char>(0xf0 + i));
      if (i < 16) words[i / 4] |= (0xf0 + i) << (24 - i % 4 * 8);
    }
    of_flow_acl_rule_ipv6 rule{};
    module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV6, flow.message(), &rule);
    for (int i = 0; i < 4; i++) {
      EXPECT_EQ(rule.field[11 + i].value.u32, words[i])
          << "word " << i << " of " << length << " bytes";
    }
  }
}

TEST_F(MakeAclRule, TracesTheFlow) {
  of_flow_acl_rule_ipv6 rule{};
  const TraceMark mark;
  module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV6,
                      Flow(0xfffffffe, 0x80000000).message(), &rule);
  EXPECT_THAT(traced(mark),
              ElementsAre("2 makeAclRule flowType: 1, flowId: 4294967294, "
                          "priority: 2147483648"));
}

TEST_F(MakeAclRule, DumpsTheRuleAtLevel5) {
  struct Row {
    quil::pb::OpenFlowType flowType;
    size_t numFields;
  };
  for (const Row& row : {Row{quil::pb::OPENFLOW_TYPE_IPV4, 21},
                         {quil::pb::OPENFLOW_TYPE_IPV6, 26}}) {
    of_flow_acl_rule_ipv6 rule{};
    const TextTrace text(1 << 5);
    const TraceMark mark;
    module_.makeAclRule(row.flowType, flow().ethSrc(kMac).message(), &rule);
    const std::vector<std::string> lines = text.lines();
    ASSERT_EQ(lines.size(), row.numFields + 2);
    EXPECT_EQ(lines[0], "AclFields: ");
    EXPECT_EQ(lines[2],
              " Field1: val: 0x0000000000112233, mask: 0x00000000ffffffff");
    EXPECT_EQ(lines[3],
              " Field2: val: 0x0000000044550000, mask: 0x00000000ffff0000");
    for (size_t i = 0; i < row.numFields; i++) {
      EXPECT_THAT(lines[i + 1],
                  testing::StartsWith(" Field" + std::to_string(i) + ": "));
      if (i != 1 && i != 2) {
        EXPECT_THAT(lines[i + 1],
                    testing::EndsWith(": val: 0x0000000000000000, mask: "
                                      "0x0000000000000000"));
      }
    }
    EXPECT_EQ(lines.back(), "AclData:  userdata: 0, priority: 100");
    EXPECT_EQ(mark.texts(5), lines) << "the ring has the same";
  }
}

// Rows: which of the four values is wrong, and its length.
using MakeAclRuleDeathTest = MakeAclRule;

TEST_F(MakeAclRuleDeathTest, AMacMustBe6Bytes) {
  const std::string good(6, '\x01');
  const auto make = [&](const std::string& src, const std::string& srcMask,
                        const std::string& dst, const std::string& dstMask) {
    Flow flow(1, 1);
    auto* match = flow.message().mutable_match();
    match->mutable_fields()->set_ethsrc(true);
    match->mutable_fields()->set_ethdst(true);
    match->mutable_values()->set_ethsrc(src);
    match->mutable_values()->set_ethsrcmask(srcMask);
    match->mutable_values()->set_ethdst(dst);
    match->mutable_values()->set_ethdstmask(dstMask);
    of_flow_acl_rule rule{};
    module_.makeAclRule(quil::pb::OPENFLOW_TYPE_IPV4, flow.message(), &rule);
  };
  make(good, good, good, good);
  const std::string five(5, '\x01');
  const std::string seven(7, '\x01');
  const char* badAddress = "Check failed: addrArg\\.size\\(\\) == 6";
  const char* badMask = "Check failed: maskArg\\.size\\(\\) == 6";
  EXPECT_DEATH(make(five, good, good, good), badAddress);
  EXPECT_DEATH(make(good, seven, good, good), badMask);
  EXPECT_DEATH(make(good, good, "", good), badAddress);
  EXPECT_DEATH(make(good, good, good, five), badMask);
}

}  // namespace
}  // namespace openflow_test
