// SPDX-License-Identifier: BSD-3-Clause
#include "tests/datapath/key_fields.h"

namespace openflow_test {
namespace {

void put(const Mac& address, size_t at, Bytes* key) {
  std::copy(address.begin(), address.end(),
            key->begin() + static_cast<long>(at));
}

// Fields that both keys start with, but for the IP protocol.
void putLayer2(const KeyFields& fields, Bytes* key) {
  put(fields.ethSrc, 1, key);
  put(fields.ethDst, 9, key);
  put16(&(*key)[17], fields.vlanTci);
  put16(&(*key)[19], fields.ethType);
}

// Fields that both keys end with, from the L4 source port on.
void putLayers(const Layers& layers, uint64_t metadata, size_t at, Bytes* key) {
  (*key)[0] = layers.proto;
  put16(&(*key)[at], layers.l4Src);
  put16(&(*key)[at + 2], layers.l4Dst);
  (*key)[at + 4] = layers.tos;
  (*key)[at + 5] = layers.ttl;
  (*key)[at + 6] = layers.icmpType;
  (*key)[at + 7] = layers.icmpCode;
  (*key)[at + 8] = layers.tcpFlags;
  // As it lies in the memory of a little-endian host.
  for (size_t i = 0; i < 8; i++) {
    (*key)[at + 12 + i] = static_cast<uint8_t>(metadata >> (8 * i));
  }
}

}  // namespace

Bytes ipv4KeyBytes(const KeyFields& fields) {
  Bytes key(53);
  putLayer2(fields, &key);
  put32(&key[21], fields.arpTpa);
  put32(&key[25], fields.ipv4Src);
  put32(&key[29], fields.ipv4Dst);
  putLayers(fields.ipv4, fields.metadata, 33, &key);
  return key;
}

Bytes ipv6KeyBytes(const KeyFields& fields) {
  Bytes key(73);
  putLayer2(fields, &key);
  std::copy(fields.ipv6Src.begin(), fields.ipv6Src.end(), &key[21]);
  std::copy(fields.ipv6Dst.begin(), fields.ipv6Dst.end(), &key[37]);
  putLayers(fields.ipv6, fields.metadata, 53, &key);
  return key;
}

// Matches exactly the packets that have this key in the family.
Flow exactFlow(const KeyFields& key, Family family) {
  const Layers& layers = family == Family::kIpv6 ? key.ipv6 : key.ipv4;
  Flow flow(1, 10);
  flow.ethDst(key.ethDst).ethSrc(key.ethSrc).ethType(key.ethType);
  flow.vlanVid(key.vlanTci, 0xffff).metadata(key.metadata);
  flow.ipProto(layers.proto).ipTos(layers.tos).ipTtl(layers.ttl);
  flow.l4SrcPort(layers.l4Src).l4DstPort(layers.l4Dst);
  flow.tcpFlags(layers.tcpFlags);
  flow.icmpType(layers.icmpType).icmpCode(layers.icmpCode);
  if (family == Family::kIpv6) {
    flow.ipv6Src(key.ipv6Src).ipv6Dst(key.ipv6Dst);
  } else {
    flow.arpTpa(key.arpTpa).ipv4Src(key.ipv4Src).ipv4Dst(key.ipv4Dst);
  }
  return flow.counters(kPackets, kByteCount).output({2});
}

KeyFields key4(const Layers& layers) {
  return {.ethType = 0x0800, .ipv4 = layers, .ipv4Src = kIpA, .ipv4Dst = kIpB};
}

KeyFields key6(const Layers& layers) {
  return {
      .ethType = 0x86dd, .ipv6 = layers, .ipv6Src = kIp6A, .ipv6Dst = kIp6B};
}

}  // namespace openflow_test
