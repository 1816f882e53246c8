// SPDX-License-Identifier: BSD-3-Clause
#include "modules/openflow/translate/acl_layout.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <tuple>
#include <vector>

namespace {

struct Row {
  uint32_t offset;
  uint8_t size;
  uint8_t input;
};

constexpr Row kIpv4Rows[] = {
    {0, 1, 0},                                           // ipProto
    {1, 4, 1},   {5, 4, 2},                              // ethSrc
    {9, 4, 3},   {13, 4, 4},                             // ethDst
    {17, 2, 5},  {19, 2, 5},                             // vlanTci, ethType
    {21, 4, 6},                                          // arpTpa
    {25, 4, 7},                                          // ipv4Src
    {29, 4, 8},                                          // ipv4Dst
    {33, 2, 9},  {35, 2, 9},                             // ports
    {37, 1, 10}, {38, 1, 10}, {39, 1, 10}, {40, 1, 10},  // tos, ttl, icmp
    {41, 1, 11}, {42, 1, 11}, {43, 2, 11},               // tcpFlags, padding
    {45, 4, 12}, {49, 4, 13},                            // metadata
};

constexpr Row kIpv6Rows[] = {
    {0, 1, 0},                                           // next header
    {1, 4, 1},   {5, 4, 2},                              // ethSrc
    {9, 4, 3},   {13, 4, 4},                             // ethDst
    {17, 2, 5},  {19, 2, 5},                             // vlanTci, ethType
    {21, 4, 6},  {25, 4, 7},  {29, 4, 8},  {33, 4, 9},   // ipv6Src
    {37, 4, 10}, {41, 4, 11}, {45, 4, 12}, {49, 4, 13},  // ipv6Dst
    {53, 2, 14}, {55, 2, 14},                            // ports
    {57, 1, 15}, {58, 1, 15}, {59, 1, 15}, {60, 1, 15},  // tos, ttl, icmp
    {61, 1, 16}, {62, 1, 16}, {63, 2, 16},               // tcpFlags, padding
    {65, 4, 17}, {69, 4, 18},                            // metadata
};

void expectRows(std::span<const rte_acl_field_def> defs,
                std::span<const Row> rows) {
  ASSERT_EQ(defs.size(), rows.size());
  for (size_t i = 0; i < rows.size(); i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(defs[i].type, RTE_ACL_FIELD_TYPE_BITMASK);
    EXPECT_EQ(defs[i].field_index, i);
    EXPECT_EQ(defs[i].offset, rows[i].offset);
    EXPECT_EQ(defs[i].size, rows[i].size);
    EXPECT_EQ(defs[i].input_index, rows[i].input);
  }
}

TEST(AclLayout, Ipv4FieldsRowForRow) { expectRows(of_flow_defs, kIpv4Rows); }

TEST(AclLayout, Ipv6FieldsRowForRow) {
  expectRows(of_flow_defs_ipv6, kIpv6Rows);
}

TEST(AclLayout, FieldsCoverTheKeysWithoutGaps) {
  for (const auto& [defs, keySize] :
       {std::tuple{std::span<const rte_acl_field_def>(of_flow_defs), 53u},
        std::tuple{std::span<const rte_acl_field_def>(of_flow_defs_ipv6),
                   73u}}) {
    uint32_t end = 0;
    for (const rte_acl_field_def& def : defs) {
      EXPECT_EQ(def.offset, end);
      end += def.size;
    }
    EXPECT_EQ(end, keySize);
  }
  EXPECT_EQ(sizeof(OfIpv4Key), 53u);
  EXPECT_EQ(sizeof(OfIpv6Key), 73u);
}

TEST(AclLayout, RulesAreTheLibrarysHeaderAndFields) {
  EXPECT_EQ(sizeof(of_flow_acl_rule), 352u);
  EXPECT_EQ(sizeof(of_flow_acl_rule_ipv6), 432u);
  EXPECT_EQ(sizeof(of_flow_acl_rule), size_t{RTE_ACL_RULE_SZ(21)});
  EXPECT_EQ(sizeof(of_flow_acl_rule_ipv6), size_t{RTE_ACL_RULE_SZ(26)});
  EXPECT_EQ(offsetof(of_flow_acl_rule, data.category_mask), 0u);
  EXPECT_EQ(offsetof(of_flow_acl_rule, data.priority), 4u);
  EXPECT_EQ(offsetof(of_flow_acl_rule, data.userdata), 8u);
  EXPECT_EQ(offsetof(of_flow_acl_rule, field), 16u);
  EXPECT_EQ(offsetof(of_flow_acl_rule_ipv6, field), 16u);
}

}  // namespace
