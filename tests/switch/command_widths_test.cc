// SPDX-License-Identifier: BSD-3-Clause
//
// Numbers of a command list that are wider in the message than in the module:
// the largest one is taken, the next one is not.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "switch/flow/command_list.h"

namespace ofswitch {
namespace {

struct Row {
  const char* name;
  uint32_t max;
};

const Row kMatchRows[] = {
    {"ethType", 65535},    {"vlanVid", 65535},   {"vlanVidMask", 65535},
    {"vlanPcp", 7},        {"ipTos", 255},       {"ipTosMask", 255},
    {"ipTtl", 255},        {"ipTtlMask", 255},   {"ipProto", 255},
    {"l4SrcPort", 65535},  {"l4DstPort", 65535}, {"tcpFlags", 255},
    {"tcpFlagsMask", 255}, {"icmpType", 255},    {"icmpCode", 255},
};

const Row kActionRows[] = {
    {"vlanVid", 65535},   {"vlanPcp", 7},
    {"ipTos", 255},       {"l4SrcPort", 65535},
    {"l4DstPort", 65535}, {"icmpType", 255},
    {"icmpCode", 255},    {"outputControllerReason", 255},
};

const Row kFlowRows[] = {
    {"priority", 536870911},
    {"packetCounterId", 8388607},
    {"byteCounterId", 8388607},
};

// What is said of an add that has `text` in it; empty when it is taken.
std::string refusalOf(const std::string& text) {
  const CommandList list = CommandListReader().read(
      fmt::format("[{{\"updateFlows\": {{\"adds\": [{}]}}}}]", text), "c.json");
  return list.ok() ? "" : list.refusals[0].text();
}

// `add` has the places of a field's name and value in an add.
void expectWidth(const Row& row, const char* add, const std::string& path) {
  EXPECT_EQ(
      refusalOf(fmt::format(fmt::runtime(add), row.name, uint64_t{row.max})),
      "");
  const uint64_t above = uint64_t{row.max} + 1;
  EXPECT_EQ(refusalOf(fmt::format(fmt::runtime(add), row.name, above)),
            fmt::format("c.json:1:28: command 0: updateFlows: adds[0].{}{}: {} "
                        "is above {}",
                        path, row.name, above, row.max));
}

TEST(CommandWidths, OfMatches) {
  for (const Row& row : kMatchRows) {
    expectWidth(row, "{{\"match\": {{\"values\": {{\"{}\": {}}}}}}}",
                "match.values.");
  }
}

TEST(CommandWidths, OfActions) {
  for (const Row& row : kActionRows) {
    expectWidth(row, "{{\"action\": {{\"values\": {{\"{}\": {}}}}}}}",
                "action.values.");
  }
}

TEST(CommandWidths, OfFlows) {
  for (const Row& row : kFlowRows) {
    expectWidth(row, "{{\"{}\": {}}}", "");
  }
}

}  // namespace
}  // namespace ofswitch
