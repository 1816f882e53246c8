// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/sample_key.h"

#include <cstring>
#include <string>

// Keys have one layout, wherever they are made.
#include "modules/openflow/translate/acl_layout.h"

namespace ofswitch {
namespace {

// Sets bits of a key whose other bits stay as they are.
class KeyWriter {
 public:
  explicit KeyWriter(uint8_t* key) : key_(key) {}

  void number(size_t offset, size_t size, uint64_t value, uint64_t mask) {
    for (size_t i = 0; i < size; i++) {
      const size_t shift = 8 * (size - 1 - i);
      put(offset + i, static_cast<uint8_t>(value >> shift),
          static_cast<uint8_t>(mask >> shift));
    }
  }
  void exact(size_t offset, size_t size, uint64_t value) {
    number(offset, size, value, ~uint64_t{0});
  }
  void bytes(size_t offset, const std::string& value, const std::string& mask) {
    for (size_t i = 0; i < value.size() && i < mask.size(); i++) {
      put(offset + i, static_cast<uint8_t>(value[i]),
          static_cast<uint8_t>(mask[i]));
    }
  }

 private:
  void put(size_t at, uint8_t value, uint8_t mask) {
    key_[at] = static_cast<uint8_t>((key_[at] & ~mask) | (value & mask));
  }

  uint8_t* key_;
};

void writeL2(const quil::pb::OfMatch& match, KeyWriter* key) {
  const auto& fields = match.fields();
  const auto& values = match.values();
  if (fields.ipproto()) key->exact(0, 1, values.ipproto());
  if (fields.ethsrc()) {
    key->bytes(offsetof(OfL2Key, ethSrc), values.ethsrc(), values.ethsrcmask());
  }
  if (fields.ethdst()) {
    key->bytes(offsetof(OfL2Key, ethDst), values.ethdst(), values.ethdstmask());
  }
  constexpr size_t kTci = offsetof(OfL2Key, vlanTci);
  if (fields.vlanvid()) {
    key->number(kTci, 2, values.vlanvid(), values.vlanvidmask());
  }
  if (fields.vlanpcp()) {
    key->number(kTci, 2, values.vlanpcp() << 13, 0xe000);
  }
  if (fields.ethtype()) {
    key->exact(offsetof(OfL2Key, ethType), 2, values.ethtype());
  }
}

void writeL3(const quil::pb::OfMatch& match, bool ipv6, KeyWriter* key) {
  const auto& fields = match.fields();
  const auto& values = match.values();
  if (ipv6) {
    if (fields.ipv6src()) {
      key->bytes(offsetof(OfIpv6Key, ipv6Src), values.ipv6src(),
                 values.ipv6srcmask());
    }
    if (fields.ipv6dst()) {
      key->bytes(offsetof(OfIpv6Key, ipv6Dst), values.ipv6dst(),
                 values.ipv6dstmask());
    }
    return;
  }
  if (fields.arptpa()) {
    key->number(offsetof(OfIpv4Key, arpTpa), 4, values.arptpa(),
                values.arptpamask());
  }
  if (fields.ipv4src()) {
    key->number(offsetof(OfIpv4Key, ipv4Src), 4, values.ipv4src(),
                values.ipv4srcmask());
  }
  if (fields.ipv4dst()) {
    key->number(offsetof(OfIpv4Key, ipv4Dst), 4, values.ipv4dst(),
                values.ipv4dstmask());
  }
}

void writeL4(const quil::pb::OfMatch& match, size_t base, KeyWriter* key) {
  const auto& fields = match.fields();
  const auto& values = match.values();
  const auto at = [base](size_t offset) { return base + offset; };
  if (fields.l4srcport()) {
    key->exact(at(offsetof(OfL4Key, l4SrcPort)), 2, values.l4srcport());
  }
  if (fields.l4dstport()) {
    key->exact(at(offsetof(OfL4Key, l4DstPort)), 2, values.l4dstport());
  }
  if (fields.iptos()) {
    key->number(at(offsetof(OfL4Key, ipTos)), 1, values.iptos(),
                values.iptosmask());
  }
  if (fields.ipttl()) {
    key->number(at(offsetof(OfL4Key, ipTtl)), 1, values.ipttl(),
                values.ipttlmask());
  }
  if (fields.icmptype()) {
    key->exact(at(offsetof(OfL4Key, icmpType)), 1, values.icmptype());
  }
  if (fields.icmpcode()) {
    key->exact(at(offsetof(OfL4Key, icmpCode)), 1, values.icmpcode());
  }
  if (fields.tcpflags()) {
    key->number(at(offsetof(OfL4Key, tcpFlags)), 1, values.tcpflags(),
                values.tcpflagsmask());
  }
  if (fields.metadata()) {
    // As it is stored in host memory.
    key->exact(at(offsetof(OfL4Key, metadata)), 8,
               __builtin_bswap64(values.metadata()));
  }
}

}  // namespace

std::vector<uint8_t> sampleKey(const quil::pb::OpenFlowAddFlow& flow, bool ipv6,
                               std::mt19937* random) {
  std::vector<uint8_t> key(ipv6 ? sizeof(OfIpv6Key) : sizeof(OfIpv4Key));
  for (uint8_t& byte : key) byte = static_cast<uint8_t>((*random)());
  KeyWriter writer(key.data());
  writeL2(flow.match(), &writer);
  writeL3(flow.match(), ipv6, &writer);
  writeL4(flow.match(),
          ipv6 ? offsetof(OfIpv6Key, l4) : offsetof(OfIpv4Key, l4), &writer);
  return key;
}

}  // namespace ofswitch
