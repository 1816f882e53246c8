// SPDX-License-Identifier: BSD-3-Clause
//
// The key that a trace shows is the one that the module builds.
#include "switch/trace/packet_key.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "modules/openflow/datapath/build_key.h"
#include "switch/trace/key_fields.h"
#include "tests/support/bytes.h"
#include "tests/support/frame.h"
#include "tests/support/random_traffic.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;

template <class T>
void put(T value, size_t width, Bytes* key) {
  for (size_t i = width; i-- > 0;) {
    key->push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
}

void putL2(const Match& m, Bytes* key) {
  key->push_back(m.ipProto.value);
  for (const uint64_t mac : {m.ethSrc.value, m.ethDst.value}) {
    put(mac, 6, key);
    put(0u, 2, key);
  }
  put(m.vlanTci.value, 2, key);
  put(m.ethType.value, 2, key);
}

void putL4(const Match& m, Bytes* key) {
  put(m.l4Src.value, 2, key);
  put(m.l4Dst.value, 2, key);
  for (const uint8_t byte : {m.ipTos.value, m.ipTtl.value, m.icmpType.value,
                             m.icmpCode.value, m.tcpFlags.value}) {
    key->push_back(byte);
  }
  put(0u, 3, key);
  // The in-port as metadata: 64 bits as they lie in this machine's memory.
  for (int i = 0; i < 4; i++) {
    key->push_back(static_cast<uint8_t>(m.inPort.value >> (8 * i)));
  }
  put(0u, 4, key);
}

Bytes ipv4Key(const Match& m) {
  Bytes key;
  putL2(m, &key);
  put(m.arpTpa.value, 4, &key);
  put(m.ipv4Src.value, 4, &key);
  put(m.ipv4Dst.value, 4, &key);
  putL4(m, &key);
  return key;
}

Bytes ipv6Key(const Match& m) {
  Bytes key;
  putL2(m, &key);
  put(m.ipv6Src.value, 16, &key);
  put(m.ipv6Dst.value, 16, &key);
  putL4(m, &key);
  return key;
}

// As the module has them; what lies behind a frame reads as zeros.
struct ModuleKeys {
  Bytes ipv4 = Bytes(sizeof(OfIpv4Key));
  Bytes ipv6 = Bytes(sizeof(OfIpv6Key));
};

ModuleKeys moduleKeys(Bytes frame, uint16_t inPort) {
  frame.resize(std::max(frame.size(), kFrameWindow));
  ModuleKeys keys;
  buildKeys<true, true>(frame.data(), inPort,
                        reinterpret_cast<OfIpv4Key*>(keys.ipv4.data()),
                        reinterpret_cast<OfIpv6Key*>(keys.ipv6.data()));
  return keys;
}

void expectTheModulesKeys(const Bytes& frame, uint16_t inPort) {
  const std::string_view bytes(reinterpret_cast<const char*>(frame.data()),
                               frame.size());
  const ModuleKeys keys = moduleKeys(frame, inPort);
  ASSERT_EQ(ipv4Key(packetKey(bytes, inPort, false)), keys.ipv4)
      << openflow_test::hexDump(frame);
  ASSERT_EQ(ipv6Key(packetKey(bytes, inPort, true)), keys.ipv6)
      << openflow_test::hexDump(frame);
}

TEST(PacketKey, IsTheModulesForRandomFrames) {
  openflow_test::Random random(20240817);
  for (int i = 0; i < 20000; i++) {
    const auto packet =
        openflow_test::randomPacket(&random, {.truncate = i % 2 == 0});
    expectTheModulesKeys(packet.bytes,
                         static_cast<uint16_t>(random.below(8192)));
    if (HasFatalFailure()) return;
  }
}

TEST(PacketKey, IsTheModulesForAnyBytes) {
  openflow_test::Random random(7);
  constexpr uint16_t kTypes[] = {0x0800, 0x86dd, 0x0806, 0x8100,
                                 0x88a8, 0x0040, 0x05ff, 0x0600};
  for (int i = 0; i < 20000; i++) {
    Bytes frame(14 + random.below(120));
    for (uint8_t& byte : frame) byte = static_cast<uint8_t>(random.bits());
    openflow_test::put16(&frame[12], random.pick(kTypes));
    if (frame.size() > 26 && random.oneIn(2)) {
      // SNAP, then any type.
      const Bytes snap = {0xaa, 0xaa, 0x03, 0, 0, 0};
      std::ranges::copy(snap, frame.begin() + 14);
      openflow_test::put16(&frame[20], random.pick(kTypes));
    }
    expectTheModulesKeys(frame, 1);
    if (HasFatalFailure()) return;
  }
}

std::vector<NamedField> fields(const Bytes& frame) {
  return fieldsOf(packetKey(std::string(frame.begin(), frame.end()), 3));
}

TEST(KeyFields, NameWhatThePacketHas) {
  using Fields = std::vector<NamedField>;
  EXPECT_EQ(fields(Frame::eth()
                       .tag(0x8100, 0xb064)
                       .ipv4(0x0a000001, 2)
                       .tos(0xb9)
                       .icmp(8, 3)),
            (Fields{{"in_port", "3"},
                    {"dl_src", "02:00:00:00:00:05"},
                    {"dl_dst", "02:00:00:00:00:0d"},
                    {"dl_type", "0x0800"},
                    {"dl_vlan", "100"},
                    {"dl_vlan_pcp", "5"},
                    {"vlan_dei", "1"},
                    {"nw_src", "10.0.0.1"},
                    {"nw_dst", "0.0.0.2"},
                    {"nw_proto", "1"},
                    {"nw_tos", "184"},
                    {"nw_ecn", "1"},
                    {"nw_ttl", "64"},
                    {"icmp_type", "8"},
                    {"icmp_code", "3"}}));
  EXPECT_EQ(fields(Frame::eth().arp(1, 0x0a000007)),
            (Fields{{"in_port", "3"},
                    {"dl_src", "02:00:00:00:00:05"},
                    {"dl_dst", "02:00:00:00:00:0d"},
                    {"dl_type", "0x0806"},
                    {"arp_tpa", "10.0.0.7"}}));
  EXPECT_EQ(fields(Frame::eth().ipv4(1, 2).tcp(7, 80, 0)).back(),
            (NamedField{"tcp_flags", "0"}));
}

std::vector<FieldDifference> rewritten(const Bytes& before,
                                       const Bytes& after) {
  return rewrittenFields(std::string(before.begin(), before.end()),
                         std::string(after.begin(), after.end()));
}

// Also of tags that the key cannot tell from none.
TEST(KeyFields, CompareTags) {
  using Differences = std::vector<FieldDifference>;
  const Bytes plain = Frame::eth().ipv4(1, 2).udp(3, 4);
  const Bytes null = Frame::eth().vlan(0).ipv4(1, 2).udp(3, 4);
  EXPECT_EQ(
      rewritten(plain, null),
      (Differences{{"dl_vlan", "0", "none"}, {"dl_vlan_pcp", "0", "none"}}));
  EXPECT_EQ(
      rewritten(null, plain),
      (Differences{{"dl_vlan", "none", "0"}, {"dl_vlan_pcp", "none", "0"}}));
  EXPECT_EQ(rewritten(Frame::eth().qinq(5).ipv4(1, 2), Frame::eth().ipv4(1, 2)),
            (Differences{{"dl_type", "0x0800", "0x88a8"}}));
  EXPECT_EQ(rewritten(plain, plain), Differences{});
  const Bytes eligible = Frame::eth().tag(0x8100, 0x1005).ipv4(1, 2).udp(3, 4);
  EXPECT_EQ(rewritten(eligible,
                      Frame::eth().tag(0x8100, 0x2007).ipv4(1, 2).udp(3, 4)),
            (Differences{{"dl_vlan", "7", "5"},
                         {"dl_vlan_pcp", "1", "0"},
                         {"vlan_dei", "0", "1"}}));
  EXPECT_EQ(rewritten(eligible, plain),
            (Differences{{"dl_vlan", "none", "5"},
                         {"dl_vlan_pcp", "none", "0"},
                         {"vlan_dei", "none", "1"}}));
  EXPECT_EQ(rewritten(plain, eligible),
            (Differences{{"dl_vlan", "5", "none"},
                         {"dl_vlan_pcp", "0", "none"},
                         {"vlan_dei", "1", "none"}}));
}

}  // namespace
}  // namespace ofswitch
