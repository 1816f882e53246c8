// SPDX-License-Identifier: BSD-3-Clause
//
// Requests of any content to a running switch, one after the other, as the
// control door hands them over. After each one the flows in force must be what
// a twin says: a map of flows by table, priority and match, changed only by
// requests that were applied. The listing, the reply's counts, the book's sums
// and the module's own must agree with it.
//
// Input: a number of requests, each as method (1 byte), length (2 bytes) and
// serialised bytes.
#include <google/protobuf/stubs/logging.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "fuzz/target.h"
#include "graph.h"
#include "openflow.pb.h"
#include "platform/mio/mio.h"
#include "switch/control/message_codec.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/flow_reader.h"
#include "switch/live/flow_request.h"
#include "switch/live/live_switch.h"
#include "switch/replay/module_commands.h"

namespace ofswitch {
namespace {

using openflow_fuzz::fail;
using openflow_fuzz::Input;

constexpr int kMaxRequests = 6;
constexpr uint32_t kTables = 32;
constexpr uint32_t kCounters = 256;  // few, so that they run out

// By table, priority and match; what else a flow says.
using Flows = std::map<std::string, std::string>;

std::string keyOf(uint32_t table, uint32_t priority, const std::string& match) {
  return fmt::format("{},{},{}", table, priority, match);
}

// Timeouts would need a clock that passes.
class Bench {
 public:
  Bench() : live_(config(), [] { return LiveSwitch::Clock::time_point(); }) {
    live_.start();
  }

  void change(const pb::FlowChange& change) {
    const Flows before = flows_;
    const FlowRequest request = readFlowRequest(change);
    const pb::FlowChangeReply reply = live_.changeFlows(change);
    if (!request.ok() && (reply.applied() || reply.refusals().empty())) {
      fail("was not refused: {}", change.ShortDebugString());
    }
    if (reply.applied()) {
      apply(change, request);
    } else if (reply.refusals().empty() && reply.failure().empty()) {
      fail("was not applied, and nobody says why: {}",
           change.ShortDebugString());
    }
    compare(change.ShortDebugString());
    compareCounts(before, reply);
  }

  // What only asks.
  template <class Request, class Ask>
  void ask(const Request& request, Ask ask) {
    try {
      ask(&live_, request);
    } catch (const BadRequest&) {
    }
    compare(request.ShortDebugString());
  }

  // What one input leaves must not be there for the next.
  void clear() {
    pb::FlowChange all;
    all.set_operation(pb::FLOW_OPERATION_DELETE);
    change(all);
    if (!flows_.empty()) fail("{} flows cannot be deleted", flows_.size());
    const pb::LogLevels levels = live_.setLogLevels({});
    for (const auto& [facility, level] : levels.levels()) {
      Mio::setTraceLevels(facility, 0);
    }
  }

 private:
  static SwitchConfig config() {
    SwitchConfig config;
    config.ports = {{1, "port1", "net_null1,no-rx=1", 1, 0},
                    {2, "port2", "net_null2,no-rx=1", 1, 0}};
    config.memoryMb = 256;
    config.buildMb = 64;
    config.counters = kCounters;
    config.module.path = MODULE;
    return config;
  }

  void apply(const pb::FlowChange& change, const FlowRequest& request) {
    switch (change.operation()) {
      case pb::FLOW_OPERATION_REPLACE:
        flows_.clear();
        [[fallthrough]];
      case pb::FLOW_OPERATION_ADD:
        for (const Flow& flow : request.flows) {
          flows_[keyOf(flow.table, flow.priority, matchText(flow.match))] =
              flowText(flow);
        }
        return;
      default:
        remove(change, request);
    }
  }

  // Which flows a filter selects is for other tests; here, that it brings none
  // and takes what it must.
  void remove(const pb::FlowChange& change, const FlowRequest& request) {
    const Flows left = listed();
    for (const auto& [key, text] : left) {
      const auto found = flows_.find(key);
      if (found == flows_.end() || found->second != text) {
        fail("a deletion brought {}", text);
      }
    }
    if (request.filters.empty() && !change.strict() && !left.empty()) {
      fail("a deletion of all left {}", left.begin()->second);
    }
    flows_ = left;
  }

  Flows listed() {
    Flows flows;
    std::set<uint32_t> ids;
    std::set<uint32_t> counters;
    live_.dumpFlows({}, [&](const pb::FlowEntry& entry) {
      const auto key = keyOf(entry.table(), entry.priority(), entry.match());
      if (!flows.emplace(key, entry.flow()).second) fail("{} twice", key);
      if (!ids.insert(entry.flow_id()).second) {
        fail("flow {} twice", entry.flow_id());
      }
      for (const uint32_t id : {entry.packet_counter(), entry.byte_counter()}) {
        if (id >= kCounters || !counters.insert(id).second) {
          fail("counter {} is not its own: {}", id, entry.flow());
        }
      }
      const Flow again =
          FlowReader({.allowTimeouts = true}).readLine(entry.flow());
      if (flowText(again) != entry.flow()) {
        fail("read again, {} is {}", entry.flow(), flowText(again));
      }
      return true;
    });
    return flows;
  }

  void compare(const std::string& after) {
    const Flows flows = listed();
    if (flows != flows_) {
      std::string text;
      for (const auto& [key, flow] : flows) text += "listed " + flow + "\n";
      for (const auto& [key, flow] : flows_) text += "twin   " + flow + "\n";
      fail("after {}\n{}", after, text);
    }
    const pb::StatsReply stats = live_.stats({});
    if (stats.flows() != flows.size() || !stats.closes()) {
      fail("after {}: {}", after, stats.ShortDebugString());
    }
    compareTables(after);
  }

  void compareTables(const std::string& after) {
    pb::TablesRequest request;
    request.set_all(true);
    const pb::TablesReply reply = live_.tables(request);
    if (reply.tables_size() != kTables) fail("{} tables", reply.tables_size());
    uint64_t sum = 0;
    for (const pb::Table& table : reply.tables()) {
      sum += table.flows();
      const quil::pb::OpenFlowGetStatsRespArg module =
          tableStats(table.table());
      if (table.ipv4().flows() != module.numflows() ||
          table.ipv6().flows() != module.numipv6flows()) {
        fail(
            "after {}: table {}: {} and {} flows in the book, {} and {} in "
            "the module",
            after, table.table(), table.ipv4().flows(), table.ipv6().flows(),
            module.numflows(), module.numipv6flows());
      }
    }
    if (sum != flows_.size()) fail("tables have {} flows", sum);
  }

  // What the reply says of the change, from what the twin was and is.
  void compareCounts(const Flows& before, const pb::FlowChangeReply& reply) {
    uint64_t added = 0;
    uint64_t removed = 0;
    for (const auto& [key, text] : flows_) added += !before.contains(key);
    for (const auto& [key, text] : before) removed += !flows_.contains(key);
    if (!reply.applied()) {
      if (before != flows_) fail("a change that was not applied changed flows");
      added = removed = 0;
    }
    if (reply.added() != added || reply.removed() != removed) {
      fail("{} added and {} removed, the reply says: {}", added, removed,
           reply.ShortDebugString());
    }
  }

  LiveSwitch live_;
  Flows flows_;
};

// As the door does: what is no such message, or too long, goes no further.
template <class Request, class Use>
void decoded(std::string_view bytes, const MessageLimits& limits, Use use) {
  const grpc::Slice slice(bytes.data(), bytes.size());
  Request request;
  try {
    decode(grpc::ByteBuffer(&slice, 1), limits, &request);
  } catch (const BadMessage&) {
    return;
  }
  use(request);
}

template <class Request, class Ask>
void asked(Bench* bench, std::string_view bytes, Ask ask) {
  decoded<Request>(bytes, kSmallMessage,
                   [&](const Request& request) { bench->ask(request, ask); });
}

void request(Bench* bench, uint8_t method, std::string_view bytes) {
  switch (method % 8) {
    case 0:
      return asked<pb::FlowFilter>(
          bench, bytes, [](LiveSwitch* live, const auto& filter) {
            live->dumpFlows(filter, [](const auto&) { return true; });
          });
    case 1:
      return asked<pb::TablesRequest>(
          bench, bytes, [](auto* live, const auto& one) { live->tables(one); });
    case 2:
      return asked<pb::StatsRequest>(
          bench, bytes, [](auto* live, const auto& one) { live->stats(one); });
    case 3:
      return asked<pb::LogRequest>(
          bench, bytes,
          [](auto* live, const auto& one) { live->readLog(one, 64); });
    case 4:
      return asked<pb::TraceRequest>(
          bench, bytes, [](auto* live, const auto& one) { live->trace(one); });
    default:
      return decoded<pb::FlowChange>(
          bytes, kLargeMessage,
          [bench](const pb::FlowChange& change) { bench->change(change); });
  }
}

}  // namespace
}  // namespace ofswitch

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const google::protobuf::LogSilencer noComplaints;
  static ofswitch::Bench bench;
  openflow_fuzz::Input input(data, size);
  for (int n = 0; n < ofswitch::kMaxRequests && !input.empty(); n++) {
    const auto method = input.take<uint8_t>();
    ofswitch::request(&bench, method, input.bytes(input.take<uint16_t>()));
  }
  bench.clear();
  return 0;
}
