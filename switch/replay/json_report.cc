// SPDX-License-Identifier: BSD-3-Clause
#include <google/protobuf/descriptor.h>

#include <nlohmann/json.hpp>

#include "switch/replay/report.h"

namespace ofswitch {
namespace {

using Json = nlohmann::ordered_json;

// The statistics message with its own names, and numbers as numbers: protobuf's
// JSON has them as strings.
void addStats(const quil::pb::OpenFlowGetStatsRespArg& stats, Json* json) {
  const auto* descriptor = stats.GetDescriptor();
  for (int i = 0; i < descriptor->field_count(); i++) {
    const auto* field = descriptor->field(i);
    (*json)[field->name()] = stats.GetReflection()->GetUInt64(stats, field);
  }
}

Json tableJson(size_t index, const ReplayCounts& counts,
               const Account::Table& account) {
  Json json = {{"tableId", index}};
  addStats(counts.tables[index], &json);
  // Two workers may lose counts of a table's; what flows and packets tell does
  // not depend on that.
  json["tableMisses"] = account.misses;
  json["dropActions"] =
      account.dropActions + account.ttlExpired + account.emptyTable;
  json["noOutputDrops"] = account.noOutput;
  json["packets"] = account.entered;
  json["matched"] = account.matched;
  json["dropsByFlow"] = account.dropActions;
  json["dropsTtlExpired"] = account.ttlExpired;
  json["dropsEmptyTable"] = account.emptyTable;
  json["batchDropPackets"] = account.batchDropPackets;
  return json;
}

Json repliesJson(const ReplayCounts& counts) {
  Json json = Json::array();
  for (const ReplayCounts::Reply& reply : counts.replies) {
    Json one = {{"where", reply.where}};
    addStats(reply.stats, &one["getStats"]);
    json.push_back(one);
  }
  return json;
}

Json tablesJson(const ReplayCounts& counts, const Account& account) {
  Json json = Json::array();
  for (size_t i = 0; i < account.tables.size(); i++) {
    const auto& stats = counts.tables[i];
    if (stats.numflows() + stats.numipv6flows() + account.tables[i].entered >
        0) {
      json.push_back(tableJson(i, counts, account.tables[i]));
    }
  }
  return json;
}

Json flowsJson(const Policy& policy, const ReplayCounts& counts) {
  Json json = Json::array();
  for (const PolicyFlow& flow : policy.flows) {
    const PolicyRule& rule = policy.rules[flow.rules[0]];
    uint64_t packets = 0, bytes = 0, expired = 0;
    for (const size_t index : flow.rules) {
      packets += counts.rules[index].packets;
      bytes += counts.rules[index].bytes;
      if (policy.rules[index].kind == PolicyRule::Kind::kGuard) {
        expired += counts.rules[index].packets;
      }
    }
    json.push_back({{"flow", flow.text},
                    {"where", flow.where},
                    {"tableId", rule.table},
                    {"flowType", quil::pb::OpenFlowType_Name(rule.family)},
                    {"flowId", rule.flowId},
                    {"priority", rule.priority},
                    {"packets", packets},
                    {"bytes", bytes},
                    {"ttlExpired", expired}});
  }
  return json;
}

Json portsJson(const ReplayCounts& counts) {
  Json json = Json::array();
  for (const ReplayCounts::Port& port : counts.ports) {
    json.push_back({{"port", port.port},
                    {"packetsIn", port.packetsIn},
                    {"bytesIn", port.bytesIn},
                    {"packetsOut", port.packetsOut},
                    {"bytesOut", port.bytesOut},
                    {"file", port.file}});
  }
  return json;
}

Json accountJson(const Account& account) {
  return {{"packetsIn", account.packetsIn},
          {"output", account.sent},
          {"dropsByFlow", account.dropActions},
          {"dropsTtlExpired", account.ttlExpired},
          {"dropsEmptyTable", account.emptyTable},
          {"noOutputDrops", account.noOutput},
          {"tableMisses", account.misses},
          {"batchDropPackets", account.batchDropPackets},
          {"poolDryStopped", account.notCopied},
          {"copiesOut", account.outputs},
          {"copiesOnPorts", account.packetsOut},
          {"copiesUnconnected", account.unconnected},
          {"copiesNotMade", account.outputsNotCopied},
          {"buffersInUse", account.buffersInUse},
          {"nothingLost", account.closes()},
          {"discrepancies", account.discrepancies}};
}

}  // namespace

std::string jsonReport(const Policy& policy, const ReplayCounts& counts,
                       const Account& account) {
  const Json json = {{"replies", repliesJson(counts)},
                     {"tables", tablesJson(counts, account)},
                     {"flows", flowsJson(policy, counts)},
                     {"ports", portsJson(counts)},
                     {"accounting", accountJson(account)}};
  // Flow lines and file names may be any bytes.
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace ofswitch
