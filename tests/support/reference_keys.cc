// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/reference_keys.h"

#include <algorithm>

namespace openflow_test {
namespace {

// Where the fields of a rule lie in the key, in the order of the fields.
struct Place {
  size_t offset;
  size_t size;
};

constexpr Place kIpv4Places[] = {
    {0, 1},   // IP protocol
    {1, 4},   // source MAC, first four bytes
    {5, 4},   // last two and padding
    {9, 4},   // destination MAC
    {13, 4},  //
    {17, 2},  // VLAN tag control
    {19, 2},  // EtherType
    {21, 4},  // ARP target address
    {25, 4},  // IPv4 source
    {29, 4},  // IPv4 destination
    {33, 2},  // L4 source port
    {35, 2},  // L4 destination port
    {37, 1},  // TOS
    {38, 1},  // TTL
    {39, 1},  // ICMP type
    {40, 1},  // ICMP code
    {41, 1},  // TCP flags
    {42, 1},  // padding
    {43, 2},  // padding
    {45, 4},  // metadata as stored, first half
    {49, 4},  // second half
};
constexpr size_t kIpv4Base = 10;  // field of the L4 source port

constexpr Place kIpv6Places[] = {
    {0, 1},  {1, 4},  {5, 4},  {9, 4},  {13, 4}, {17, 2},
    {19, 2}, {21, 4}, {25, 4}, {29, 4}, {33, 4},  // source
    {37, 4}, {41, 4}, {45, 4}, {49, 4},           // destination
    {53, 2}, {55, 2}, {57, 1}, {58, 1}, {59, 1}, {60, 1},
    {61, 1}, {62, 1}, {63, 2}, {65, 4}, {69, 4},
};
constexpr size_t kIpv6Base = 15;

void copyIn(const ReferencePacket& packet, size_t from, size_t count,
            uint8_t* to) {
  for (size_t i = 0; i < count; i++) to[i] = packet.get(from + i);
}

void ipv4Key(const ReferencePacket& packet, size_t l3, uint8_t* key) {
  copyIn(packet, l3 + 12, 4, key + 25);
  copyIn(packet, l3 + 16, 4, key + 29);
  key[37] = packet.get(l3 + 1);
  key[38] = packet.get(l3 + 8);
  key[0] = packet.get(l3 + 9);
  const size_t l4 = l3 + size_t{4} * (packet.get(l3) & 0x0f);
  if (key[0] == 6 || key[0] == 17) {
    copyIn(packet, l4, 4, key + 33);
  }
  if (key[0] == 6) {
    key[41] = packet.get(l4 + 13);
  }
  if (key[0] == 1) {
    copyIn(packet, l4, 2, key + 39);
  }
}

void ipv6Key(const ReferencePacket& packet, size_t l3, uint8_t* key) {
  copyIn(packet, l3 + 8, 16, key + 21);
  copyIn(packet, l3 + 24, 16, key + 37);
  key[57] = static_cast<uint8_t>(packet.get32(l3) >> 20);
  key[58] = packet.get(l3 + 7);
  key[0] = packet.get(l3 + 6);
  const size_t l4 = l3 + 40;
  if (key[0] == 6 || key[0] == 17) {
    copyIn(packet, l4, 4, key + 53);
  }
  if (key[0] == 6) {
    key[61] = packet.get(l4 + 13);
  }
  if (key[0] == 58) {
    copyIn(packet, l4, 2, key + 59);
  }
}

// A 64-bit number as the bytes that a little-endian host stores it in.
void storeLittle(uint64_t value, uint8_t* to) {
  for (int i = 0; i < 8; i++) to[i] = static_cast<uint8_t>(value >> (8 * i));
}

void macFields(const std::string& address, const std::string& mask,
               ReferenceField* high) {
  const Bytes a = padded(address, 8);
  const Bytes m = padded(mask, 8);
  high[0] = {get32(&a[0]), get32(&m[0])};
  high[1] = {get32(&a[4]) & 0xffff0000, get32(&m[4]) & 0xffff0000};
}

void ip6Fields(const std::string& address, const std::string& mask,
               ReferenceField* first) {
  const Bytes a = padded(address, 16);
  const Bytes m = padded(mask, 16);
  for (size_t word = 0; word < 4; word++) {
    first[word] = {get32(&a[4 * word]), get32(&m[4 * word])};
  }
}

template <size_t N>
bool matches(const std::vector<ReferenceField>& rule, const Place (&places)[N],
             const uint8_t* key) {
  for (size_t f = 0; f < N; f++) {
    uint32_t inKey = 0;
    for (size_t i = 0; i < places[f].size; i++) {
      inKey = inKey << 8 | key[places[f].offset + i];
    }
    if ((inKey & rule[f].mask) != (rule[f].value & rule[f].mask)) return false;
  }
  return true;
}

}  // namespace

Bytes padded(const std::string& value, size_t length) {
  Bytes bytes(value.begin(), value.end());
  bytes.resize(length);
  return bytes;
}

ReferenceKeys referenceKeys(const ReferencePacket& packet) {
  ReferenceKeys keys;
  const bool hasMetadata = packet.meta.flags & MetadataBlock::kMetadataValid;
  const uint64_t metadata = hasMetadata ? packet.meta.metadata : 0;
  storeLittle(metadata, &keys.ipv4[45]);
  storeLittle(metadata, &keys.ipv6[65]);

  const auto both = [&](size_t from, size_t count, size_t to) {
    copyIn(packet, from, count, &keys.ipv4[to]);
    copyIn(packet, from, count, &keys.ipv6[to]);
  };
  both(0, 6, 9);
  both(6, 6, 1);

  size_t l3 = 14;
  if (packet.get16(12) < 0x0600) {
    const bool snap = packet.get16(14) == 0xaaaa && packet.get(17) == 0 &&
                      packet.get(18) == 0 && packet.get(19) == 0;
    if (!snap) return keys;
    l3 = 22;
  }
  if (packet.get16(l3 - 2) == 0x8100) {
    both(l3, 2, 17);
    l3 += 4;
  }
  both(l3 - 2, 2, 19);
  switch (packet.get16(l3 - 2)) {
    case 0x0806:
      copyIn(packet, l3 + 24, 4, &keys.ipv4[21]);
      break;
    case 0x0800:
      ipv4Key(packet, l3, keys.ipv4.data());
      break;
    case 0x86dd:
      ipv6Key(packet, l3, keys.ipv6.data());
      break;
    default:
      break;
  }
  return keys;
}

std::vector<ReferenceField> referenceRule(const quil::pb::OfMatch& match,
                                          bool ipv6) {
  const quil::pb::OfMatchFields& has = match.fields();
  const quil::pb::OfMatchValues& v = match.values();
  std::vector<ReferenceField> rule(ipv6 ? std::size(kIpv6Places)
                                        : std::size(kIpv4Places));

  if (has.ipproto()) rule[0] = {v.ipproto() & 0xff, 0xff};
  if (has.ethsrc()) macFields(v.ethsrc(), v.ethsrcmask(), &rule[1]);
  if (has.ethdst()) macFields(v.ethdst(), v.ethdstmask(), &rule[3]);
  if (has.vlanvid()) {
    rule[5] = {v.vlanvid() & 0xffff, v.vlanvidmask() & 0xffff};
  }
  if (has.vlanpcp()) {
    rule[5].value |= v.vlanpcp() << 13 & 0xffff;
    rule[5].mask |= 0xe000;
  }
  if (has.ethtype()) rule[6] = {v.ethtype() & 0xffff, 0xffff};

  if (ipv6) {
    if (has.ipv6src()) ip6Fields(v.ipv6src(), v.ipv6srcmask(), &rule[7]);
    if (has.ipv6dst()) ip6Fields(v.ipv6dst(), v.ipv6dstmask(), &rule[11]);
  } else {
    if (has.arptpa()) rule[7] = {v.arptpa(), v.arptpamask()};
    if (has.ipv4src()) rule[8] = {v.ipv4src(), v.ipv4srcmask()};
    if (has.ipv4dst()) rule[9] = {v.ipv4dst(), v.ipv4dstmask()};
  }

  ReferenceField* base = &rule[ipv6 ? kIpv6Base : kIpv4Base];
  if (has.l4srcport()) base[0] = {v.l4srcport() & 0xffff, 0xffff};
  if (has.l4dstport()) base[1] = {v.l4dstport() & 0xffff, 0xffff};
  if (has.iptos()) base[2] = {v.iptos() & 0xff, v.iptosmask() & 0xff};
  if (has.ipttl()) base[3] = {v.ipttl() & 0xff, v.ipttlmask() & 0xff};
  if (has.icmptype()) base[4] = {v.icmptype() & 0xff, 0xff};
  if (has.icmpcode()) base[5] = {v.icmpcode() & 0xff, 0xff};
  if (has.tcpflags()) {
    base[6] = {v.tcpflags() & 0xff, v.tcpflagsmask() & 0xff};
  }
  if (has.metadata()) {
    uint8_t stored[8];
    storeLittle(v.metadata(), stored);
    base[9] = {get32(stored), 0xffffffff};
    base[10] = {get32(stored + 4), 0xffffffff};
  }
  return rule;
}

bool referenceMatches(const std::vector<ReferenceField>& rule,
                      const ReferenceKeys& keys) {
  return rule.size() == std::size(kIpv6Places)
             ? matches(rule, kIpv6Places, keys.ipv6.data())
             : matches(rule, kIpv4Places, keys.ipv4.data());
}

}  // namespace openflow_test
