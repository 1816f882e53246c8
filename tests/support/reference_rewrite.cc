// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/reference_rewrite.h"

#include "tests/support/checksum.h"
#include "tests/support/reference_keys.h"

namespace openflow_test {
namespace {

constexpr size_t kType = 12;  // of an untagged frame; tag type of a tagged one

using Packet = ReferencePacket;
using Fields = quil::pb::OfActionFields;
using Values = quil::pb::OfActionValues;

bool tagged(const Packet& packet) { return packet.get16(kType) == 0x8100; }

void popVlan(Packet* packet) {
  const bool hasTag = tagged(*packet) || packet->get16(kType) == 0x88a8;
  // The MACs move up to byte 16, which the buffer may not have.
  if (!hasTag || packet->firstLength() < 4 || packet->bufferBytes() < 16) {
    return;
  }
  for (size_t i = 12; i-- > 0;) packet->set(i + 4, packet->get(i));
  packet->removeFront(4);
}

void setVlanVid(Packet* packet, uint16_t vid) {
  if (packet->bufferBytes() < (tagged(*packet) ? 16u : 14u)) return;
  if (tagged(*packet)) {
    const unsigned kept = packet->get16(kType + 2) & 0xf000;
    packet->set16(kType + 2, static_cast<uint16_t>(kept | vid));
  } else if (packet->headroom() >= 4) {
    packet->prepend(4);
    for (size_t i = 0; i < 12; i++) packet->set(i, packet->get(i + 4));
    packet->set16(kType, 0x8100);
    packet->set16(kType + 2, vid);
  }
}

void setMac(Packet* packet, size_t at, const std::string& address) {
  const Bytes bytes = padded(address, 6);
  for (size_t i = 0; i < 6; i++) packet->set(at + i, bytes[i]);
}

// A checksum that covers changed words, by the difference of the words.
class Difference {
 public:
  // Replaces a word and notes by how much the sum changes.
  void set16(Packet* packet, size_t at, uint16_t value) {
    sum_ += value + static_cast<uint16_t>(~packet->get16(at));
    packet->set16(at, value);
  }

  void set32(Packet* packet, size_t at, uint32_t value) {
    set16(packet, at, static_cast<uint16_t>(value >> 16));
    set16(packet, at + 2, static_cast<uint16_t>(value));
  }

  bool any() const { return sum_ != 0; }

  void apply(Packet* packet, size_t at) const {
    const uint16_t complement = static_cast<uint16_t>(~packet->get16(at));
    packet->set16(at, static_cast<uint16_t>(~foldSum(sum_ + complement)));
  }

 private:
  uint32_t sum_ = 0;
};

void rewriteIpv4(const Fields& has, const Values& v, size_t l3, Packet* packet,
                 Difference* difference) {
  if (has.decttl()) {
    packet->set(l3 + 8, static_cast<uint8_t>(packet->get(l3 + 8) - 1));
  }
  if (has.setiptos()) packet->set(l3 + 1, static_cast<uint8_t>(v.iptos()));
  if (has.setipv4src()) difference->set32(packet, l3 + 12, v.ipv4src());
  if (has.setipv4dst()) difference->set32(packet, l3 + 16, v.ipv4dst());
  if (!has.decttl() && !has.setiptos() && !has.setipv4src() &&
      !has.setipv4dst()) {
    return;
  }

  const size_t length = size_t{4} * (packet->get(l3) & 0x0f);
  packet->set16(l3 + 10, 0);
  if (length < 20) return;
  uint32_t sum = 0;
  for (size_t i = 0; i < length; i += 2) sum += packet->get16(l3 + i);
  packet->set16(l3 + 10, static_cast<uint16_t>(~foldSum(sum)));
}

void rewriteIpv6(const Fields& has, const Values& v, size_t l3,
                 Packet* packet) {
  if (has.decttl()) {
    packet->set(l3 + 7, static_cast<uint8_t>(packet->get(l3 + 7) - 1));
  }
  if (has.setiptos()) {
    const uint32_t word = packet->get32(l3) & 0xf00fffff;
    packet->set32(l3, word | (v.iptos() & 0xff) << 20);
  }
}

void rewritePorts(const Fields& has, const Values& v, size_t l4, Packet* packet,
                  Difference* difference) {
  if (has.setl4srcport()) {
    difference->set16(packet, l4, static_cast<uint16_t>(v.l4srcport()));
  }
  if (has.setl4dstport()) {
    difference->set16(packet, l4 + 2, static_cast<uint16_t>(v.l4dstport()));
  }
}

void rewriteIcmp(const Fields& has, const Values& v, size_t l4,
                 Packet* packet) {
  const uint16_t old = packet->get16(l4);
  uint16_t now = old;
  if (has.seticmptype()) {
    now = static_cast<uint16_t>((v.icmptype() & 0xff) << 8 | (now & 0xff));
  }
  if (has.seticmpcode()) {
    now = static_cast<uint16_t>((now & 0xff00) | (v.icmpcode() & 0xff));
  }
  if (now == old) return;
  Difference difference;
  difference.set16(packet, l4, now);
  difference.apply(packet, l4 + 2);
}

void rewriteIp(const Fields& has, const Values& v, Packet* packet) {
  const size_t l3 = tagged(*packet) ? 18 : 14;
  const uint16_t type = packet->get16(l3 - 2);
  if (type != 0x0800 && type != 0x86dd) return;

  const bool ipv6 = type == 0x86dd;
  const uint8_t proto = packet->get(ipv6 ? l3 + 6 : l3 + 9);
  const size_t l4 = ipv6 ? l3 + 40 : l3 + size_t{4} * (packet->get(l3) & 0x0f);
  Difference difference;
  if (ipv6) {
    rewriteIpv6(has, v, l3, packet);
  } else {
    rewriteIpv4(has, v, l3, packet, &difference);
  }

  if (proto == 6 || proto == 17) {
    rewritePorts(has, v, l4, packet, &difference);
    const size_t checksum = l4 + (proto == 6 ? 16 : 6);
    const bool none = proto == 17 && !ipv6 && packet->get16(checksum) == 0;
    if (difference.any() && !none) difference.apply(packet, checksum);
  } else if (proto == (ipv6 ? 58 : 1)) {
    rewriteIcmp(has, v, l4, packet);
  }
}

}  // namespace

void referenceRewrite(const quil::pb::OfAction& action,
                      ReferencePacket* packet) {
  const Fields& has = action.fields();
  const Values& v = action.values();
  if (has.popvlan()) popVlan(packet);
  if (has.setvlanvid()) {
    setVlanVid(packet, static_cast<uint16_t>(v.vlanvid()));
  }
  if (has.setethdst()) setMac(packet, 0, v.ethdst());
  if (has.setethsrc()) setMac(packet, 6, v.ethsrc());
  if (has.setvlanpcp() && tagged(*packet)) {
    const unsigned kept = packet->get16(kType + 2) & 0x1fff;
    const unsigned pcp = (v.vlanpcp() & 0xff) << 13;
    packet->set16(kType + 2, static_cast<uint16_t>(kept | pcp));
  }
  rewriteIp(has, v, packet);
}

}  // namespace openflow_test
