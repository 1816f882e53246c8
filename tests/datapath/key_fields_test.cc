// SPDX-License-Identifier: BSD-3-Clause
//
// Every field of a key is compared: a flow that differs from the packet in one
// of them misses.
#include "tests/datapath/key_fields.h"

#include <functional>

namespace openflow_test {
namespace {

// One field of a key, spoilt.
struct SpoiltField {
  const char* name;
  std::function<void(KeyFields*)> spoil;
  bool inIpv4 = true;
  bool inIpv6 = true;
};

const SpoiltField kSpoiltFields[] = {
    {"EthDstFirst", [](KeyFields* k) { k->ethDst[0] ^= 0x80; }},
    {"EthDstLast", [](KeyFields* k) { k->ethDst[5] ^= 1; }},
    {"EthSrcFirst", [](KeyFields* k) { k->ethSrc[0] ^= 0x80; }},
    {"EthSrcLast", [](KeyFields* k) { k->ethSrc[5] ^= 1; }},
    {"EthType", [](KeyFields* k) { k->ethType ^= 1; }},
    {"VlanTciHigh", [](KeyFields* k) { k->vlanTci ^= 0x8000; }},
    {"VlanTciLow", [](KeyFields* k) { k->vlanTci ^= 1; }},
    {"Proto", [](KeyFields* k) { k->ipv4.proto ^= 1, k->ipv6.proto ^= 1; }},
    {"Tos", [](KeyFields* k) { k->ipv4.tos ^= 1, k->ipv6.tos ^= 1; }},
    {"Ttl", [](KeyFields* k) { k->ipv4.ttl ^= 1, k->ipv6.ttl ^= 1; }},
    {"L4Src", [](KeyFields* k) { k->ipv4.l4Src ^= 1, k->ipv6.l4Src ^= 1; }},
    {"L4Dst",
     [](KeyFields* k) { k->ipv4.l4Dst ^= 0x100, k->ipv6.l4Dst ^= 0x100; }},
    {"TcpFlags",
     [](KeyFields* k) { k->ipv4.tcpFlags ^= 2, k->ipv6.tcpFlags ^= 2; }},
    {"IcmpType",
     [](KeyFields* k) { k->ipv4.icmpType ^= 1, k->ipv6.icmpType ^= 1; }},
    {"IcmpCode",
     [](KeyFields* k) { k->ipv4.icmpCode ^= 1, k->ipv6.icmpCode ^= 1; }},
    {"MetadataLow", [](KeyFields* k) { k->metadata ^= 1; }},
    {"MetadataHigh", [](KeyFields* k) { k->metadata ^= uint64_t{1} << 63; }},
    {"ArpTpa", [](KeyFields* k) { k->arpTpa ^= 1; }, true, false},
    {"Ipv4Src", [](KeyFields* k) { k->ipv4Src ^= 1; }, true, false},
    {"Ipv4Dst", [](KeyFields* k) { k->ipv4Dst ^= 0x80000000; }, true, false},
    {"Ipv6SrcFirst", [](KeyFields* k) { k->ipv6Src[0] ^= 1; }, false, true},
    {"Ipv6SrcLast", [](KeyFields* k) { k->ipv6Src[15] ^= 1; }, false, true},
    {"Ipv6DstMiddle", [](KeyFields* k) { k->ipv6Dst[7] ^= 1; }, false, true},
    {"Ipv6DstLast", [](KeyFields* k) { k->ipv6Dst[15] ^= 1; }, false, true},
};

void PrintTo(const SpoiltField& field, std::ostream* out) {
  *out << field.name;
}

class KeyField : public DataPath,
                 public ::testing::WithParamInterface<SpoiltField> {
 protected:
  void expectMiss(const Frame& frame, KeyFields key, Family family) {
    GetParam().spoil(&key);
    add(0, {exactFlow(key, family)}, family);
    const RunResult result = run({frame});
    EXPECT_EQ(result.numEmitted(), 0u);
    EXPECT_EQ(result.table(0).tableMisses, 1u);
    EXPECT_EQ(result.drops, 1u);
    EXPECT_TRUE(result.flowCounters.empty());
  }
};

TEST_P(KeyField, IsCompared) {
  if (GetParam().inIpv4) {
    expectMiss(kTcp4, key4(kTcpLayers), Family::kIpv4);
  }
  if (GetParam().inIpv6) {
    harness().clearFlows();
    SetUp();
    expectMiss(kTcp6, key6(kTcpLayers), Family::kIpv6);
  }
}

INSTANTIATE_TEST_SUITE_P(All, KeyField, ::testing::ValuesIn(kSpoiltFields),
                         rowName);

}  // namespace
}  // namespace openflow_test
