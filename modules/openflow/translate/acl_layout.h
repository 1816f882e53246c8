// SPDX-License-Identifier: BSD-3-Clause
//
// The layouts that rules and lookup keys share, one for each address family.
//
// A key is the bytes that rte_acl_classify reads of one packet; a rule has one
// field for each key field, with a host-order value that is compared with the
// key bytes read in network order. rte_acl walks a key in groups of four bytes:
// fields of one group share an input index, and the first field is one byte.
//
//   IPv4, 53 bytes                       IPv6, 73 bytes
//    0 ipProto                            0 ipProto (next header)
//    1 ethSrc (6 + 2 zero)                1 ethSrc (6 + 2 zero)
//    9 ethDst (6 + 2 zero)                9 ethDst (6 + 2 zero)
//   17 vlanTci, ethType                  17 vlanTci, ethType
//   21 arpTpa                            21 ipv6Src
//   25 ipv4Src                           37 ipv6Dst
//   29 ipv4Dst                           53 l4SrcPort, l4DstPort
//   33 l4SrcPort, l4DstPort              57 ipTos, ipTtl, icmpType, icmpCode
//   37 ipTos, ipTtl, icmpType, icmpCode  61 tcpFlags (+ 3 zero)
//   41 tcpFlags (+ 3 zero)               65 metadata
//   45 metadata
#pragma once

#include <rte_acl.h>

#include <cstddef>
#include <cstdint>

// What both keys begin with.
struct [[gnu::packed]] OfL2Key {
  uint8_t ipProto;
  uint8_t ethSrc[8];  // MAC, then two zero bytes
  uint8_t ethDst[8];  // MAC, then two zero bytes
  uint16_t vlanTci;   // network order; 0 when untagged
  uint16_t ethType;   // network order; behind the VLAN tag or SNAP header
};
static_assert(sizeof(OfL2Key) == 21);

// What both keys end with.
struct [[gnu::packed]] OfL4Key {
  uint16_t l4SrcPort;  // network order
  uint16_t l4DstPort;  // network order
  uint8_t ipTos;       // or traffic class
  uint8_t ipTtl;       // or hop limit
  uint8_t icmpType;
  uint8_t icmpCode;
  uint8_t tcpFlags;  // byte 13 of the TCP header
  uint8_t padding[3];
  uint64_t metadata;  // as it is stored in host memory
};
static_assert(sizeof(OfL4Key) == 20);

struct [[gnu::packed]] OfIpv4Key {
  OfL2Key l2;
  uint32_t arpTpa;   // network order
  uint32_t ipv4Src;  // network order
  uint32_t ipv4Dst;  // network order
  OfL4Key l4;
};
static_assert(sizeof(OfIpv4Key) == 53, "the classifier reads these bytes");
static_assert(offsetof(OfIpv4Key, l4.ipTos) == 37);
static_assert(offsetof(OfIpv4Key, l4.metadata) == 45);

struct [[gnu::packed]] OfIpv6Key {
  OfL2Key l2;
  uint8_t ipv6Src[16];
  uint8_t ipv6Dst[16];
  OfL4Key l4;
};
static_assert(sizeof(OfIpv6Key) == 73, "the classifier reads these bytes");
static_assert(offsetof(OfIpv6Key, l4.ipTos) == 57);
static_assert(offsetof(OfIpv6Key, l4.metadata) == 65);

// Rule fields, by index. A MAC takes two fields, an IPv6 address four.
inline constexpr int kFieldIpProto = 0;
inline constexpr int kFieldEthSrc = 1;
inline constexpr int kFieldEthDst = 3;
inline constexpr int kFieldVlanTci = 5;
inline constexpr int kFieldEthType = 6;

inline constexpr int kFieldArpTpa = 7;  // IPv4 layout
inline constexpr int kFieldIpv4Src = 8;
inline constexpr int kFieldIpv4Dst = 9;
inline constexpr int kIpv4L4Base = 10;

inline constexpr int kFieldIpv6Src = 7;  // IPv6 layout
inline constexpr int kFieldIpv6Dst = 11;
inline constexpr int kIpv6L4Base = 15;

// The last fields of both layouts, counted from the layout's L4 base.
inline constexpr int kFieldL4SrcPort = 0;
inline constexpr int kFieldL4DstPort = 1;
inline constexpr int kFieldIpTos = 2;
inline constexpr int kFieldIpTtl = 3;
inline constexpr int kFieldIcmpType = 4;
inline constexpr int kFieldIcmpCode = 5;
inline constexpr int kFieldTcpFlags = 6;
inline constexpr int kFieldPadding = 7;
inline constexpr int kFieldPadding2 = 8;
inline constexpr int kFieldMetadata = 9;
inline constexpr int kNumL4Fields = 11;

inline constexpr int kNumIpv4Fields = 21;
inline constexpr int kNumIpv6Fields = 26;
static_assert(kIpv4L4Base + kNumL4Fields == kNumIpv4Fields);
static_assert(kIpv6L4Base + kNumL4Fields == kNumIpv6Fields);

RTE_ACL_RULE_DEF(of_flow_acl_rule, kNumIpv4Fields);
RTE_ACL_RULE_DEF(of_flow_acl_rule_ipv6, kNumIpv6Fields);
static_assert(sizeof(of_flow_acl_rule) == RTE_ACL_RULE_SZ(kNumIpv4Fields));
static_assert(sizeof(of_flow_acl_rule) == 352);
static_assert(sizeof(of_flow_acl_rule_ipv6) == RTE_ACL_RULE_SZ(kNumIpv6Fields));
static_assert(sizeof(of_flow_acl_rule_ipv6) == 432);

extern const rte_acl_field_def of_flow_defs[kNumIpv4Fields];
extern const rte_acl_field_def of_flow_defs_ipv6[kNumIpv6Fields];
