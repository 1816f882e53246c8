// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/checksum.h"

#include <fmt/format.h>

#include <algorithm>

namespace openflow_test {
namespace {

// Where layer 3 starts and which protocol it is.
struct Layer3 {
  size_t at;
  uint16_t type;
};

Layer3 findLayer3(const Bytes& frame) {
  Layer3 l3{14, get16(&frame[12])};
  for (;;) {
    const bool tagged = l3.type == 0x8100 || l3.type == 0x88a8;
    const bool snap = l3.type < 0x0600 && frame.size() >= l3.at + 8 &&
                      get16(&frame[l3.at]) == 0xaaaa;
    const size_t skip = tagged ? 4 : snap ? 8 : 0;
    if (skip == 0 || frame.size() < l3.at + skip) return l3;
    l3 = {l3.at + skip, get16(&frame[l3.at + skip - 2])};
  }
}

std::string layer4Error(const Bytes& frame, size_t l4At, size_t length,
                        uint8_t proto, uint32_t addressSum, bool ipv6) {
  if (frame.size() < l4At + length) return "frame shorter than its IP length";
  const uint8_t* l4 = frame.data() + l4At;
  uint32_t sum = onesSum(l4, length);
  const char* name = nullptr;
  if (proto == 6 && length >= 20) {
    name = "TCP";
  } else if (proto == 17 && length >= 8) {
    name = "UDP";
    if (!ipv6 && get16(l4 + 6) == 0) return "";
    if (get16(l4 + 6) == 0) return "UDP over IPv6 without a checksum";
  } else if (proto == 58 && ipv6 && length >= 4) {
    name = "ICMPv6";
  } else if (proto == 1 && !ipv6 && length >= 4) {
    return foldSum(sum) == 0xffff ? "" : "ICMP checksum wrong";
  } else {
    return "";
  }
  sum += addressSum + proto + static_cast<uint32_t>(length);
  return foldSum(sum) == 0xffff ? ""
                                : fmt::format("{} checksum wrong: sum {:#06x}",
                                              name, foldSum(sum));
}

std::string ipv4Error(const Bytes& frame, size_t at) {
  const uint8_t* l3 = frame.data() + at;
  const size_t header = size_t{4} * (l3[0] & 0x0f);
  const size_t total = get16(l3 + 2);
  if (header < 20 || frame.size() < at + header || total < header) {
    return "IPv4 header length wrong";
  }
  if (foldSum(onesSum(l3, header)) != 0xffff) {
    return fmt::format("IPv4 header checksum wrong: sum {:#06x}",
                       foldSum(onesSum(l3, header)));
  }
  if ((get16(l3 + 6) & 0x3fff) != 0) return "";  // a fragment
  return layer4Error(frame, at + header, total - header, l3[9],
                     onesSum(l3 + 12, 8), false);
}

}  // namespace

uint32_t onesSum(const uint8_t* data, size_t length) {
  uint32_t sum = 0;
  for (size_t i = 0; i < length; i++) {
    sum += i % 2 == 0 ? uint32_t{data[i]} << 8 : data[i];
  }
  return sum;
}

uint16_t foldSum(uint32_t sum) {
  while (sum > 0xffff) {
    sum = (sum & 0xffff) + (sum >> 16);
  }
  return static_cast<uint16_t>(sum);
}

std::string checksumError(const Bytes& frame) {
  if (frame.size() < 14) return "";
  const Layer3 l3 = findLayer3(frame);
  if (l3.type == 0x0800) {
    if (frame.size() < l3.at + 20) return "cut in the IPv4 header";
    return ipv4Error(frame, l3.at);
  }
  if (l3.type == 0x86dd) {
    if (frame.size() < l3.at + 40) return "cut in the IPv6 header";
    const uint8_t* header = frame.data() + l3.at;
    return layer4Error(frame, l3.at + 40, get16(header + 4), header[6],
                       onesSum(header + 8, 32), true);
  }
  return "";
}

}  // namespace openflow_test
