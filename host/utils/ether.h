// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>

namespace bess::utils {

// The Ethernet header, as on the wire.
struct [[gnu::packed]] Ethernet {
  struct [[gnu::packed]] Address {
    static constexpr size_t kSize = 6;

    Address() = default;
    // From six bytes in wire order.
    explicit Address(const uint8_t* addr);
    // From text; all zero when it is malformed.
    explicit Address(const std::string& text);

    // Takes six colon-separated pairs of hexadecimal digits. Answers false,
    // and changes nothing, for anything else.
    bool FromString(const std::string& text);

    // Such as "02:00:5e:00:53:01".
    std::string ToString() const;

    bool IsBroadcast() const;
    bool IsZero() const;

    auto operator<=>(const Address&) const = default;

    uint8_t bytes[kSize] = {};
  };

  enum Type : uint16_t {  // host order
    kIpv4 = 0x0800,
    kArp = 0x0806,
    kVlan = 0x8100,
    kIpv6 = 0x86dd,
    kQinQ = 0x88a8,
  };

  Address dst_addr;
  Address src_addr;
  uint16_t ether_type;  // network order
};

static_assert(sizeof(Ethernet::Address) == 6);
static_assert(sizeof(Ethernet) == 14);

}  // namespace bess::utils
