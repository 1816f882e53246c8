// SPDX-License-Identifier: BSD-3-Clause
#include "modules/openflow/translate/acl_layout.h"

namespace {

constexpr rte_acl_field_def bitmask(uint8_t size, uint8_t index, uint8_t group,
                                    uint32_t offset) {
  return {RTE_ACL_FIELD_TYPE_BITMASK, size, index, group, offset};
}

}  // namespace

// A row: size in bytes, field index, input index (the 4-byte group), offset.
const rte_acl_field_def of_flow_defs[kNumIpv4Fields] = {
    bitmask(1, 0, 0, offsetof(OfIpv4Key, l2.ipProto)),
    bitmask(4, 1, 1, offsetof(OfIpv4Key, l2.ethSrc)),
    bitmask(4, 2, 2, offsetof(OfIpv4Key, l2.ethSrc) + 4),
    bitmask(4, 3, 3, offsetof(OfIpv4Key, l2.ethDst)),
    bitmask(4, 4, 4, offsetof(OfIpv4Key, l2.ethDst) + 4),
    bitmask(2, 5, 5, offsetof(OfIpv4Key, l2.vlanTci)),
    bitmask(2, 6, 5, offsetof(OfIpv4Key, l2.ethType)),
    bitmask(4, 7, 6, offsetof(OfIpv4Key, arpTpa)),
    bitmask(4, 8, 7, offsetof(OfIpv4Key, ipv4Src)),
    bitmask(4, 9, 8, offsetof(OfIpv4Key, ipv4Dst)),
    bitmask(2, 10, 9, offsetof(OfIpv4Key, l4.l4SrcPort)),
    bitmask(2, 11, 9, offsetof(OfIpv4Key, l4.l4DstPort)),
    bitmask(1, 12, 10, offsetof(OfIpv4Key, l4.ipTos)),
    bitmask(1, 13, 10, offsetof(OfIpv4Key, l4.ipTtl)),
    bitmask(1, 14, 10, offsetof(OfIpv4Key, l4.icmpType)),
    bitmask(1, 15, 10, offsetof(OfIpv4Key, l4.icmpCode)),
    bitmask(1, 16, 11, offsetof(OfIpv4Key, l4.tcpFlags)),
    bitmask(1, 17, 11, offsetof(OfIpv4Key, l4.padding)),
    bitmask(2, 18, 11, offsetof(OfIpv4Key, l4.padding) + 1),
    bitmask(4, 19, 12, offsetof(OfIpv4Key, l4.metadata)),
    bitmask(4, 20, 13, offsetof(OfIpv4Key, l4.metadata) + 4),
};

const rte_acl_field_def of_flow_defs_ipv6[kNumIpv6Fields] = {
    bitmask(1, 0, 0, offsetof(OfIpv6Key, l2.ipProto)),
    bitmask(4, 1, 1, offsetof(OfIpv6Key, l2.ethSrc)),
    bitmask(4, 2, 2, offsetof(OfIpv6Key, l2.ethSrc) + 4),
    bitmask(4, 3, 3, offsetof(OfIpv6Key, l2.ethDst)),
    bitmask(4, 4, 4, offsetof(OfIpv6Key, l2.ethDst) + 4),
    bitmask(2, 5, 5, offsetof(OfIpv6Key, l2.vlanTci)),
    bitmask(2, 6, 5, offsetof(OfIpv6Key, l2.ethType)),
    bitmask(4, 7, 6, offsetof(OfIpv6Key, ipv6Src)),
    bitmask(4, 8, 7, offsetof(OfIpv6Key, ipv6Src) + 4),
    bitmask(4, 9, 8, offsetof(OfIpv6Key, ipv6Src) + 8),
    bitmask(4, 10, 9, offsetof(OfIpv6Key, ipv6Src) + 12),
    bitmask(4, 11, 10, offsetof(OfIpv6Key, ipv6Dst)),
    bitmask(4, 12, 11, offsetof(OfIpv6Key, ipv6Dst) + 4),
    bitmask(4, 13, 12, offsetof(OfIpv6Key, ipv6Dst) + 8),
    bitmask(4, 14, 13, offsetof(OfIpv6Key, ipv6Dst) + 12),
    bitmask(2, 15, 14, offsetof(OfIpv6Key, l4.l4SrcPort)),
    bitmask(2, 16, 14, offsetof(OfIpv6Key, l4.l4DstPort)),
    bitmask(1, 17, 15, offsetof(OfIpv6Key, l4.ipTos)),
    bitmask(1, 18, 15, offsetof(OfIpv6Key, l4.ipTtl)),
    bitmask(1, 19, 15, offsetof(OfIpv6Key, l4.icmpType)),
    bitmask(1, 20, 15, offsetof(OfIpv6Key, l4.icmpCode)),
    bitmask(1, 21, 16, offsetof(OfIpv6Key, l4.tcpFlags)),
    bitmask(1, 22, 16, offsetof(OfIpv6Key, l4.padding)),
    bitmask(2, 23, 16, offsetof(OfIpv6Key, l4.padding) + 1),
    bitmask(4, 24, 17, offsetof(OfIpv6Key, l4.metadata)),
    bitmask(4, 25, 18, offsetof(OfIpv6Key, l4.metadata) + 4),
};
