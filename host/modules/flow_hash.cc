// SPDX-License-Identifier: BSD-3-Clause
#include "modules/flow_hash.h"

#include <rte_hash_crc.h>

#include <algorithm>

namespace bess {
namespace {

constexpr uint32_t kMacsLen = 12;
constexpr uint32_t kTagLen = 4;
constexpr uint32_t kIpv4Len = 20;
constexpr uint32_t kIpv6Len = 40;

uint16_t ReadBe16(const uint8_t* at) {
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

// The hash function loads whole words: what it hashes is copied to where words
// may stand.
class Key {
 public:
  void Append(const uint8_t* bytes, uint32_t len) {
    std::copy_n(bytes, len, bytes_ + len_);
    len_ += len;
  }
  uint32_t Hash(uint32_t seed) const {
    return rte_hash_crc(bytes_, len_, seed);
  }

 private:
  alignas(8) uint8_t bytes_[40];
  uint32_t len_ = 0;
};

bool HasPorts(uint8_t protocol) {
  return protocol == 6 || protocol == 17 || protocol == 132;
}

}  // namespace

uint32_t FlowHash(const uint8_t* frame, uint32_t len) {
  Key key;
  if (len < kMacsLen + 2) {
    key.Append(frame, len);
    return key.Hash(0);
  }
  uint32_t at = kMacsLen;
  uint16_t type = ReadBe16(frame + at);
  for (int tag = 0; tag < 2 && (type == 0x8100 || type == 0x88a8); tag++) {
    at += kTagLen;
    if (len < at + 2) {
      break;
    }
    type = ReadBe16(frame + at);
  }
  at += 2;
  const uint8_t* l3 = frame + at;
  const uint32_t left = len > at ? len - at : 0;
  uint32_t l4;
  uint8_t protocol;
  bool fragment = false;
  if (type == 0x0800 && left >= kIpv4Len) {
    protocol = l3[9];
    fragment = (ReadBe16(l3 + 6) & 0x3fff) != 0;  // offset or more to come
    l4 = (l3[0] & 0x0f) * 4u;
    key.Append(l3 + 12, 8);
  } else if (type == 0x86dd && left >= kIpv6Len) {
    protocol = l3[6];
    l4 = kIpv6Len;
    key.Append(l3 + 8, 32);
  } else {
    key.Append(frame, kMacsLen);
    return key.Hash(0);
  }
  if (HasPorts(protocol) && !fragment && left >= l4 + 4) {
    key.Append(l3 + l4, 4);
  }
  return key.Hash(protocol);
}

}  // namespace bess
