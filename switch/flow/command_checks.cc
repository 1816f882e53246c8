// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/command_checks.h"

#include <span>
#include <string_view>

#include "switch/flow/encode.h"
#include "switch/flow/refused.h"
#include "switch/flow/translator.h"

namespace ofswitch {
namespace {

// What a uint32 field of a message may hold at most.
struct Width {
  const char* field;
  uint32_t max;
};

constexpr Width kMatchWidths[] = {
    {"ethType", 0xffff},    {"vlanVid", 0xffff},   {"vlanVidMask", 0xffff},
    {"vlanPcp", 7},         {"ipTos", 0xff},       {"ipTosMask", 0xff},
    {"ipTtl", 0xff},        {"ipTtlMask", 0xff},   {"ipProto", 0xff},
    {"l4SrcPort", 0xffff},  {"l4DstPort", 0xffff}, {"tcpFlags", 0xff},
    {"tcpFlagsMask", 0xff}, {"icmpType", 0xff},    {"icmpCode", 0xff},
};

constexpr Width kActionWidths[] = {
    {"vlanVid", 0xffff},   {"vlanPcp", 7},
    {"ipTos", 0xff},       {"l4SrcPort", 0xffff},
    {"l4DstPort", 0xffff}, {"icmpType", 0xff},
    {"icmpCode", 0xff},    {"outputControllerReason", 0xff},
};

constexpr Width kFlowWidths[] = {
    {"priority", kMaxFlowPriority},
    {"packetCounterId", kMaxCounters - 1},
    {"byteCounterId", kMaxCounters - 1},
};

void checkWidths(const google::protobuf::Message& message,
                 std::span<const Width> widths, const std::string& path) {
  for (const Width& width : widths) {
    const auto* field = message.GetDescriptor()->FindFieldByName(width.field);
    const uint32_t value = message.GetReflection()->GetUInt32(message, field);
    if (value > width.max) {
      refuse("{}.{}: {} is above {}", path, width.field, value, width.max);
    }
  }
}

void checkLength(bool present, const std::string& bytes, size_t length,
                 const std::string& path, const char* field) {
  if (present && bytes.size() != length) {
    refuse("{}.{}: {} bytes, must be {}", path, field, bytes.size(), length);
  }
}

void checkMatch(const quil::pb::OfMatch& match, const std::string& path) {
  const auto& fields = match.fields();
  const auto& values = match.values();
  constexpr size_t kMac = 6;
  constexpr size_t kIpv6 = 16;
  checkLength(fields.ethdst(), values.ethdst(), kMac, path, "ethDst");
  checkLength(fields.ethdst(), values.ethdstmask(), kMac, path, "ethDstMask");
  checkLength(fields.ethsrc(), values.ethsrc(), kMac, path, "ethSrc");
  checkLength(fields.ethsrc(), values.ethsrcmask(), kMac, path, "ethSrcMask");
  checkLength(fields.ipv6src(), values.ipv6src(), kIpv6, path, "ipv6Src");
  checkLength(fields.ipv6src(), values.ipv6srcmask(), kIpv6, path,
              "ipv6SrcMask");
  checkLength(fields.ipv6dst(), values.ipv6dst(), kIpv6, path, "ipv6Dst");
  checkLength(fields.ipv6dst(), values.ipv6dstmask(), kIpv6, path,
              "ipv6DstMask");
  checkWidths(values, kMatchWidths, path);
}

void checkAction(const quil::pb::OfAction& action, uint32_t tableId,
                 const std::string& path) {
  const auto& fields = action.fields();
  const auto& values = action.values();
  checkLength(fields.setethdst(), values.ethdst(), 6, path, "ethDst");
  checkLength(fields.setethsrc(), values.ethsrc(), 6, path, "ethSrc");
  checkWidths(values, kActionWidths, path);
  if (static_cast<size_t>(values.ogate_size()) > kMaxOutputGates) {
    refuse("{}.ogate: {} gates, at most {}", path, values.ogate_size(),
           kMaxOutputGates);
  }
  for (int i = 0; i < values.ogate_size(); i++) {
    if (values.ogate(i) > kMaxPort) {
      refuse("{}.ogate[{}]: {} is above {}", path, i, values.ogate(i),
             kMaxPort);
    }
  }
  if (fields.gototbl() &&
      (values.nexttbl() <= tableId || values.nexttbl() >= kNumTables)) {
    refuse("{}.nextTbl: {} must be above tableId {} and below {}", path,
           values.nexttbl(), tableId, kNumTables);
  }
}

void checkTable(uint32_t tableId) {
  if (tableId >= kNumTables) {
    refuse("tableId: {} must be below {}", tableId, kNumTables);
  }
}

}  // namespace

void checkUpdate(const quil::pb::OpenFlowUpdateFlowsArg& update) {
  checkTable(update.tableid());
  if (!quil::pb::OpenFlowType_IsValid(update.flowtype())) {
    refuse(
        "flowType: {} is neither 0 (OPENFLOW_TYPE_IPV4) nor 1 "
        "(OPENFLOW_TYPE_IPV6)",
        static_cast<int>(update.flowtype()));
  }
  if (update.adds_size() > kMaxAddsPerUpdate) {
    refuse("adds: {} flows, at most {} in one command", update.adds_size(),
           kMaxAddsPerUpdate);
  }
}

void checkAdd(const quil::pb::OpenFlowAddFlow& add, uint32_t tableId,
              const std::string& path) {
  checkWidths(add, kFlowWidths, path);
  checkMatch(add.match(), path + ".match.values");
  checkAction(add.action(), tableId, path + ".action.values");
}

void checkGetStats(const quil::pb::OpenFlowGetStatsArg& argument) {
  checkTable(argument.tableid());
}

SlotBindings::SlotBindings() {
  for (uint32_t table = 0; table < kNumTables; table++) {
    slots_[table] = {2 * table, 2 * table + 1};
  }
}

void SlotBindings::bind(const quil::pb::OpenFlowAclArg& argument) {
  checkTable(argument.tableid());
  const std::array<uint32_t, 2> wanted = {argument.aclid(),
                                          argument.ipv6aclid()};
  constexpr const char* kNames[] = {"aclId", "ipv6AclId"};
  for (int family = 0; family < 2; family++) {
    if (wanted[family] >= kNumSlots) {
      refuse("{}: {} must be below {}", kNames[family], wanted[family],
             kNumSlots);
    }
    for (uint32_t table = 0; table < kNumTables; table++) {
      const auto& taken = slots_[table];
      if (table != argument.tableid() &&
          (wanted[family] == taken[0] || wanted[family] == taken[1])) {
        refuse("{}: slot {} belongs to table {}", kNames[family],
               wanted[family], table);
      }
    }
  }
  if (wanted[0] == wanted[1]) {
    refuse("ipv6AclId: slot {} is the table's aclId too", wanted[1]);
  }
  slots_[argument.tableid()] = wanted;
}

}  // namespace ofswitch
