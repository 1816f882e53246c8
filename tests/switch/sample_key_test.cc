// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/sample_key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <set>

#include "tests/support/flow.h"
#include "tests/support/frame.h"

namespace ofswitch {
namespace {

using openflow_test::Flow;
using openflow_test::ip4;
using openflow_test::ip6;
using openflow_test::Ip6;
using openflow_test::Mac;

using Key = std::vector<uint8_t>;

Key keyOf(const Flow& flow, bool ipv6 = false) {
  std::mt19937 random(3);
  return sampleKey(flow.message(), ipv6, &random);
}

Key part(const Key& key, size_t offset, size_t size) {
  const auto first = key.begin() + static_cast<ptrdiff_t>(offset);
  return {first, first + static_cast<ptrdiff_t>(size)};
}

const Mac kMac = {2, 3, 4, 5, 6, 7};
const Mac kOtherMac = {0x12, 0x13, 0x14, 0x15, 0x16, 0x17};

// Beyond its end a mask takes nothing: what stands there stays as it is.
TEST(SampleKey, TakesNoMoreOfAMacThanItsMaskHas) {
  Flow cut(1, 1);
  cut.ethSrc(kMac);
  cut.message().mutable_match()->mutable_values()->mutable_ethsrcmask()->resize(
      5);
  const Key key = keyOf(cut);
  EXPECT_EQ(part(key, 1, 5), Key(kMac.begin(), kMac.end() - 1));
  EXPECT_EQ(key[6], keyOf(Flow(1, 1))[6]);
  EXPECT_NE(key[6], kMac[5]);
}

TEST(SampleKey, HasTheExactFields) {
  const Key key = keyOf(Flow(1, 1)
                            .ipProto(6)
                            .ethSrc(kMac)
                            .ethDst(kOtherMac)
                            .vlanVid(0x123)
                            .vlanPcp(5)
                            .ethType(0x0800)
                            .arpTpa(ip4("9.8.7.6"))
                            .ipv4Src(ip4("10.1.2.3"))
                            .ipv4Dst(ip4("10.4.5.6"))
                            .l4SrcPort(0x1122)
                            .l4DstPort(0x3344)
                            .ipTos(0x55)
                            .ipTtl(0x66)
                            .icmpType(0x77)
                            .icmpCode(0x88)
                            .tcpFlags(0x99)
                            .metadata(0x0102030405060708));
  ASSERT_EQ(key.size(), 53);
  EXPECT_EQ(key[0], 6);
  EXPECT_EQ(part(key, 1, 6), Key(kMac.begin(), kMac.end()));
  EXPECT_EQ(part(key, 9, 6), Key(kOtherMac.begin(), kOtherMac.end()));
  EXPECT_EQ(key[17] & 0xef, 0xa1);  // bit 0x1000 is open
  EXPECT_EQ(part(key, 18, 3), (Key{0x23, 8, 0}));
  EXPECT_EQ(part(key, 21, 12), (Key{9, 8, 7, 6, 10, 1, 2, 3, 10, 4, 5, 6}));
  EXPECT_EQ(part(key, 33, 9),
            (Key{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99}));
  EXPECT_EQ(part(key, 45, 8), (Key{8, 7, 6, 5, 4, 3, 2, 1}));
}

TEST(SampleKey, HasIpv6Addresses) {
  const Ip6 source = ip6("2001:db8::1");
  const Ip6 destination = ip6("2001:db8::2");
  const Key key = keyOf(
      Flow(1, 1).ipv6Src(source).ipv6Dst(destination).l4DstPort(0x1234), true);
  ASSERT_EQ(key.size(), 73);
  EXPECT_EQ(part(key, 21, 16), Key(source.begin(), source.end()));
  EXPECT_EQ(part(key, 37, 16), Key(destination.begin(), destination.end()));
  EXPECT_EQ(part(key, 55, 2), (Key{0x12, 0x34}));
}

// The bits that all keys of a flow have in common.
struct Common {
  Key value;
  Key mask;
};

Common commonOf(const Flow& flow, bool ipv6) {
  std::mt19937 random(5);
  Common common;
  common.value = sampleKey(flow.message(), ipv6, &random);
  common.mask = Key(common.value.size(), 0xff);
  for (int i = 0; i < 200; i++) {
    const Key key = sampleKey(flow.message(), ipv6, &random);
    for (size_t at = 0; at < key.size(); at++) {
      common.mask[at] &= static_cast<uint8_t>(~(key[at] ^ common.value[at]));
    }
  }
  for (size_t at = 0; at < common.mask.size(); at++) {
    common.value[at] &= common.mask[at];
  }
  return common;
}

struct MaskedRow {
  const char* name;
  Flow flow;
  bool ipv6;
  size_t offset;
  Key value;
  Key mask;
};

void PrintTo(const MaskedRow& row, std::ostream* out) { *out << row.name; }

const Ip6 kIp6 = ip6("2001:db8::81");
const Ip6 kIp6Mask = ip6("fff0::ff");

const MaskedRow kMasked[] = {
    {"ethSrc",
     Flow(1, 1).ethSrc({2, 0, 0, 0, 0, 1}, {0xfe, 0, 0, 0, 0, 0x0f}),
     false,
     1,
     {2, 0, 0, 0, 0, 1},
     {0xfe, 0, 0, 0, 0, 0x0f}},
    {"ethDst",
     Flow(1, 1).ethDst({4, 0, 0, 0, 0, 3}, {0xfc, 0, 0, 0, 0, 0x3f}),
     true,
     9,
     {4, 0, 0, 0, 0, 3},
     {0xfc, 0, 0, 0, 0, 0x3f}},
    {"vlanVid",
     Flow(1, 1).vlanVid(0x123, 0xf23),
     false,
     17,
     {1, 0x23},
     {0x0f, 0x23}},
    {"vlanPcp", Flow(1, 1).vlanPcp(5), true, 17, {0xa0}, {0xe0}},
    {"arpTpa",
     Flow(1, 1).arpTpa(ip4("9.0.0.1"), ip4("255.0.0.1")),
     false,
     21,
     {9, 0, 0, 1},
     {0xff, 0, 0, 1}},
    {"ipv4Src",
     Flow(1, 1).ipv4Src(ip4("9.0.0.1"), ip4("255.0.0.1")),
     false,
     25,
     {9, 0, 0, 1},
     {0xff, 0, 0, 1}},
    {"ipv4Dst",
     Flow(1, 1).ipv4Dst(ip4("9.0.0.1"), ip4("255.0.0.1")),
     false,
     29,
     {9, 0, 0, 1},
     {0xff, 0, 0, 1}},
    {"ipv6Src",
     Flow(1, 1).ipv6Src(kIp6, kIp6Mask),
     true,
     21,
     {0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x81},
     {0xff, 0xf0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff}},
    {"ipv6Dst",
     Flow(1, 1).ipv6Dst(kIp6, kIp6Mask),
     true,
     37,
     {0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x81},
     {0xff, 0xf0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff}},
    {"ipTos", Flow(1, 1).ipTos(0x24, 0xfc), false, 37, {0x24}, {0xfc}},
    {"ipTos6", Flow(1, 1).ipTos(0x24, 0xfc), true, 57, {0x24}, {0xfc}},
    {"ipTtl", Flow(1, 1).ipTtl(0x40, 0xc1), false, 38, {0x40}, {0xc1}},
    {"ipTtl6", Flow(1, 1).ipTtl(0x40, 0xc1), true, 58, {0x40}, {0xc1}},
    {"tcpFlags", Flow(1, 1).tcpFlags(0x02, 0x12), false, 41, {2}, {0x12}},
    {"tcpFlags6", Flow(1, 1).tcpFlags(0x02, 0x12), true, 61, {2}, {0x12}},
    {"nothing", Flow(1, 1), false, 0, {}, {}},
};

class MaskedSampleKey : public testing::TestWithParam<MaskedRow> {};

TEST_P(MaskedSampleKey, HasTheBitsOfTheMaskAndNoOthers) {
  const MaskedRow& row = GetParam();
  const Common common = commonOf(row.flow, row.ipv6);
  Key value(row.ipv6 ? 73 : 53);
  Key mask(value.size());
  const auto at = static_cast<ptrdiff_t>(row.offset);
  std::ranges::copy(row.value, value.begin() + at);
  std::ranges::copy(row.mask, mask.begin() + at);
  EXPECT_EQ(common.mask, mask);
  EXPECT_EQ(common.value, value);
}

INSTANTIATE_TEST_SUITE_P(Fields, MaskedSampleKey, testing::ValuesIn(kMasked),
                         [](const auto& one) { return one.param.name; });

TEST(SampleKey, LeavesOpenWhatTheFlowDoes) {
  std::mt19937 random(1);
  const Flow flow = Flow(1, 1).ipv4Dst(ip4("10.0.0.0"), ip4("255.128.0.0"));
  std::set<uint8_t> seconds;
  std::set<Key> sources;
  for (int i = 0; i < 1000; i++) {
    const Key key = sampleKey(flow.message(), false, &random);
    EXPECT_EQ(key[29], 10);
    EXPECT_LT(key[30], 128);
    seconds.insert(key[30]);
    sources.insert(part(key, 25, 4));
  }
  EXPECT_GT(seconds.size(), 100u);
  EXPECT_GT(sources.size(), 990u);
}

}  // namespace
}  // namespace ofswitch
