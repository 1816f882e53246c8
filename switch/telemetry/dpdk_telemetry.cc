// SPDX-License-Identifier: BSD-3-Clause
#include "switch/telemetry/dpdk_telemetry.h"

#include <fmt/format.h>
#include <rte_telemetry.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "eal.h"
#include "switch/telemetry/telemetry_dict.h"

namespace ofswitch {
namespace {

// Whom the commands ask. Never destroyed, because DPDK's threads run to the
// very end of the process.
struct Slot {
  std::mutex mutex;
  const LiveSwitch* live = nullptr;
};

Slot& slot() {
  static auto* const slot = new Slot;
  return *slot;
}

// A parameter that cannot be answered; the text goes to who asked.
struct BadParameter : std::runtime_error {
  using std::runtime_error::runtime_error;
};

uint32_t numberOf(std::string_view text, uint32_t most, const char* usage) {
  uint32_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number > most) {
    throw BadParameter(usage);
  }
  return number;
}

uint64_t dropped(
    const google::protobuf::RepeatedPtrField<pb::DropCause>& drops) {
  uint64_t packets = 0;
  for (const pb::DropCause& drop : drops) packets += drop.packets();
  return packets;
}

void addDrops(const google::protobuf::RepeatedPtrField<pb::DropCause>& drops,
              TelemetryDict* out) {
  for (const pb::DropCause& drop : drops) {
    out->number("drop_" + drop.name(), drop.packets());
  }
}

LiveSwitch::Reading reading(const LiveSwitch& live) {
  auto reading = live.read(0);
  if (!reading) throw BadParameter("the switch does not run");
  return *std::move(reading);
}

void tellStats(const LiveSwitch& live, std::string_view, TelemetryDict* out) {
  const pb::StatsReply stats = reading(live).stats;
  out->number("uptime_seconds", stats.uptime_ns() / 1'000'000'000);
  out->number("flows", stats.flows());
  out->number("flow_changes", stats.flow_changes());
  out->number("expired_idle", stats.expired_idle());
  out->number("expired_hard", stats.expired_hard());
  out->number("packets_received", stats.packets_received());
  out->number("bytes_received", stats.bytes_received());
  out->number("packets_forwarded", stats.packets_forwarded());
  out->number("copies_output", stats.copies_output());
  out->number("packets_sent", stats.packets_sent());
  out->number("bytes_sent", stats.bytes_sent());
  out->number("packets_in_flight", stats.packets_in_flight());
  std::map<std::string, uint64_t> drops;
  for (const pb::DropCause& drop : stats.drops()) {
    drops[drop.name()] += drop.packets();
  }
  for (const auto& [name, packets] : drops)
    out->number("drop_" + name, packets);
  out->number("workers", static_cast<uint64_t>(stats.workers_size()));
  out->number("buffers_total", stats.buffers_total());
  out->number("buffers_free", stats.buffers_free());
}

// --- ports ---

void tellPort(const pb::Port& port, TelemetryDict* out) {
  out->text("name", port.name());
  out->text("device", port.device());
  out->text("driver", port.driver());
  out->text("mac", port.mac());
  out->number("link_up", port.link_up() ? 1 : 0);
  out->number("speed_mbps", port.speed_mbps());
  out->number("mtu", port.mtu());
  out->number("rx_queues", port.rx_queues());
  out->number("tx_queues", port.tx_queues());
  out->number("rx_packets", port.rx_packets());
  out->number("rx_bytes", port.rx_bytes());
  out->number("tx_packets", port.tx_packets());
  out->number("tx_bytes", port.tx_bytes());
  addDrops(port.drops(), out);
}

void tellPorts(const LiveSwitch& live, std::string_view parameters,
               TelemetryDict* out) {
  constexpr char kUsage[] = "the parameter is the number of a port, or none";
  const pb::PortsReply reply = reading(live).ports;
  if (!parameters.empty()) {
    const uint32_t number = numberOf(parameters, UINT16_MAX, kUsage);
    const auto found =
        std::ranges::find(reply.ports(), number,
                          [](const pb::Port& port) { return port.port(); });
    if (found == reply.ports().end()) {
      throw BadParameter(fmt::format("there is no port {}", number));
    }
    return tellPort(*found, out);
  }
  uint64_t leftOut = 0;
  for (const pb::Port& port : reply.ports()) {
    constexpr size_t kShort = 200;
    if (!out->hasRoom(kShort + port.name().size())) {
      leftOut++;
      continue;
    }
    out->dict(fmt::to_string(port.port()), [&](TelemetryDict* brief) {
      brief->text("name", port.name());
      brief->number("link_up", port.link_up() ? 1 : 0);
      brief->number("rx_packets", port.rx_packets());
      brief->number("tx_packets", port.tx_packets());
      brief->number("dropped", dropped(port.drops()));
    });
  }
  if (leftOut > 0) out->number("ports_left_out", leftOut);
}

// --- tables ---

void tellClassifier(const char* family, const pb::Table::Classifier& one,
                    TelemetryDict* out) {
  out->dict(family, [&](TelemetryDict* part) {
    part->number("rules", one.flows());
    part->number("builds", one.builds());
    part->number("failed_builds", one.failed_builds());
    part->number("last_build_us", one.last_build_ns() / 1000);
    part->number("longest_build_us", one.longest_build_ns() / 1000);
    part->number("total_build_us", one.total_build_ns() / 1000);
  });
}

void tellTable(const pb::Table& table, TelemetryDict* out) {
  out->number("flows", table.flows());
  out->number("entered", table.entered());
  out->number("matched", table.matched());
  addDrops(table.drops(), out);
  tellClassifier("ipv4", table.ipv4(), out);
  tellClassifier("ipv6", table.ipv6(), out);
  out->dict("module", [&](TelemetryDict* counters) {
    for (const pb::Table::Counter& counter : table.counters()) {
      counters->number(counter.name(), counter.value());
    }
  });
}

void tellTables(const LiveSwitch& live, std::string_view parameters,
                TelemetryDict* out) {
  constexpr char kUsage[] = "the parameter is a table, 0 to 31, or none";
  const pb::TablesReply reply = reading(live).tables;
  if (!parameters.empty()) {
    const uint32_t number = numberOf(parameters, kNumTables - 1, kUsage);
    return tellTable(reply.tables(static_cast<int>(number)), out);
  }
  for (const pb::Table& table : reply.tables()) {
    if (table.flows() + table.entered() == 0) continue;
    out->dict(fmt::to_string(table.table()), [&](TelemetryDict* brief) {
      brief->number("flows", table.flows());
      brief->number("entered", table.entered());
      brief->number("matched", table.matched());
      brief->number("dropped", dropped(table.drops()));
    });
  }
}

// --- flows ---

// "tcp,tp_dst=80" -> "tcp", "tp_dst=80"
std::vector<std::string> wordsOf(const std::string& match) {
  std::vector<std::string> words;
  for (size_t at = 0; at < match.size();) {
    const size_t comma = std::min(match.find(',', at), match.size());
    words.push_back(match.substr(at, comma - at));
    at = comma + 1;
  }
  return words;
}

void tellFlow(const pb::FlowEntry& flow, bool withActions, TelemetryDict* out) {
  out->number("priority", flow.priority());
  out->text("cookie", fmt::format("{:#x}", flow.cookie()));
  out->number("n_packets", flow.n_packets());
  out->number("n_bytes", flow.n_bytes());
  out->number("duration_seconds", flow.duration_ns() / 1'000'000'000);
  out->texts("match", wordsOf(flow.match()));
  if (withActions) {
    out->texts("actions", flow.actions());
  } else {
    out->number("actions_left_out", static_cast<uint64_t>(flow.actions_size()));
  }
}

void tellFlows(const LiveSwitch& live, std::string_view parameters,
               TelemetryDict* out) {
  constexpr char kUsage[] =
      "the parameters are a table, 0 to 31, and where to start, or 0";
  const size_t comma = std::min(parameters.find(','), parameters.size());
  const uint32_t table =
      numberOf(parameters.substr(0, comma), kNumTables - 1, kUsage);
  const uint32_t start =
      comma == parameters.size()
          ? 0
          : numberOf(parameters.substr(comma + 1), UINT32_MAX, kUsage);
  out->number("table", table);
  pb::FlowFilter filter;
  filter.mutable_flow()->set_table(table);
  uint32_t position = 0;
  live.dumpFlows(filter, [&](const pb::FlowEntry& flow) {
    if (position >= start) {
      // What else there is of a flow than its texts.
      constexpr size_t kFrame = 300;
      const bool fits = out->hasRoom(kFrame + 2 * flow.text().size());
      // The first one has an answer for itself; what does not fit there never
      // will.
      if (!fits && position > start) {
        out->number("next", position);
        return false;
      }
      const bool withActions =
          fits && flow.actions_size() <= RTE_TEL_MAX_ARRAY_ENTRIES;
      out->dict(fmt::to_string(position),
                [&](TelemetryDict* one) { tellFlow(flow, withActions, one); });
    }
    position++;
    return true;
  });
}

// --- the commands ---

using Tell = void(const LiveSwitch&, std::string_view, TelemetryDict*);

// Whatever happens, DPDK gets an answer: it is C and knows no exceptions.
template <Tell* tell>
int answer(const char*, const char* parameters, rte_tel_data* data) {
  TelemetryDict out(data);
  try {
    const std::lock_guard lock(slot().mutex);
    if (slot().live == nullptr) throw BadParameter("the switch does not run");
    tell(*slot().live, parameters == nullptr ? "" : parameters, &out);
  } catch (const std::exception& error) {
    out.text("error", error.what());
  }
  return 0;
}

void registerCommands() {
  rte_telemetry_register_cmd("/ofswitch/stats", answer<tellStats>,
                             "Sums of the switch. Takes no parameters");
  rte_telemetry_register_cmd("/ofswitch/ports", answer<tellPorts>,
                             "Ports in short, or one. Parameters: [PORT]");
  rte_telemetry_register_cmd("/ofswitch/tables", answer<tellTables>,
                             "Tables in use, or one. Parameters: [TABLE]");
  rte_telemetry_register_cmd(
      "/ofswitch/flows", answer<tellFlows>,
      "Flows of a table, as many as fit. Parameters: TABLE[,START]");
}

}  // namespace

DpdkTelemetry::DpdkTelemetry(const LiveSwitch& live) {
  static std::once_flag registered;
  std::call_once(registered, registerCommands);
  const std::lock_guard lock(slot().mutex);
  slot().live = &live;
}

DpdkTelemetry::~DpdkTelemetry() {
  const std::lock_guard lock(slot().mutex);
  slot().live = nullptr;
}

std::string DpdkTelemetry::command() {
  // The script looks where this variable says, and so did DPDK.
  const char* parent = std::getenv("RUNTIME_DIRECTORY");
  const std::filesystem::path directory = bess::RuntimeDir();
  return (parent == nullptr ? ""
                            : fmt::format("RUNTIME_DIRECTORY={} ", parent)) +
         "dpdk-telemetry.py -f " + directory.filename().string();
}

}  // namespace ofswitch
