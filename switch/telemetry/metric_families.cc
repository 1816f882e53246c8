// SPDX-License-Identifier: BSD-3-Clause
#include "switch/telemetry/metric_families.h"

#include <fmt/format.h>
#include <rte_version.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "switch/flow/flow_printer.h"
#include "switch/live/drop_causes.h"
#include "switch/telemetry/metric_writer.h"

namespace ofswitch {
namespace {

constexpr auto kCounter = prometheus::MetricType::Counter;
constexpr auto kGauge = prometheus::MetricType::Gauge;

double seconds(uint64_t ns) { return static_cast<double>(ns) / 1e9; }

template <class T>
double number(T value) {
  return static_cast<double>(value);
}

// --- the switch as a whole ---

constexpr MetricSeries<pb::StatsReply> kSwitchSeries[] = {
    {"ofswitch_uptime_seconds", "Time since the switch started.", kGauge,
     [](const pb::StatsReply& s) { return seconds(s.uptime_ns()); }},
    {"ofswitch_workers", "Threads that move packets.", kGauge,
     [](const pb::StatsReply& s) { return number(s.workers_size()); }},
    {"ofswitch_packet_buffers", "Packets that can be under way at once.",
     kGauge, [](const pb::StatsReply& s) { return number(s.buffers_total()); }},
    {"ofswitch_packet_buffers_free", "Packet buffers that nothing uses.",
     kGauge, [](const pb::StatsReply& s) { return number(s.buffers_free()); }},
    {"ofswitch_flows", "Flows in force.", kGauge,
     [](const pb::StatsReply& s) { return number(s.flows()); }},
    {"ofswitch_flow_changes_total", "Changes of flows that were applied.",
     kCounter,
     [](const pb::StatsReply& s) { return number(s.flow_changes()); }},
    {"ofswitch_received_packets_total", "Packets given to the tables.",
     kCounter,
     [](const pb::StatsReply& s) { return number(s.packets_received()); }},
    {"ofswitch_received_bytes_total", "Bytes of the packets received.",
     kCounter,
     [](const pb::StatsReply& s) { return number(s.bytes_received()); }},
    {"ofswitch_forwarded_packets_total",
     "Packets whose way ended with at least one output.", kCounter,
     [](const pb::StatsReply& s) { return number(s.packets_forwarded()); }},
    {"ofswitch_output_copies_total", "Copies made for output ports.", kCounter,
     [](const pb::StatsReply& s) { return number(s.copies_output()); }},
    {"ofswitch_sent_packets_total",
     "Packets handed to devices or the controller.", kCounter,
     [](const pb::StatsReply& s) { return number(s.packets_sent()); }},
    {"ofswitch_sent_bytes_total", "Bytes of the packets sent.", kCounter,
     [](const pb::StatsReply& s) { return number(s.bytes_sent()); }},
    {"ofswitch_in_flight_packets",
     "Packets received and not accounted for yet.", kGauge,
     [](const pb::StatsReply& s) { return number(s.packets_in_flight()); }},
    {"ofswitch_account_discrepancies",
     "Sums of packets that do not close; anything but 0 is a defect.", kGauge,
     [](const pb::StatsReply& s) { return number(s.discrepancies_size()); }},
};

void writeSwitch(const pb::StatsReply& stats, MetricWriter* out) {
  const size_t build =
      out->begin("ofswitch_build_info", "What runs; always 1.", kGauge);
  out->add(build,
           {{"version", OFSWITCH_VERSION},
            {"dpdk", rte_version() + std::strlen(RTE_VER_PREFIX) + 1}},
           1);
  out->each<pb::StatsReply>(kSwitchSeries, std::span(&stats, 1),
                            [](const auto&) { return MetricLabels(); });

  const size_t expired = out->begin("ofswitch_expired_flows_total",
                                    "Flows that ended by a timeout.", kCounter);
  out->add(expired, {{"timeout", "idle"}}, number(stats.expired_idle()));
  out->add(expired, {{"timeout", "hard"}}, number(stats.expired_hard()));

  const size_t drops = out->begin(
      "ofswitch_output_drops_total",
      "Copies that were to leave and did not reach a port, by cause.",
      kCounter);
  for (const SwitchDrop cause :
       {SwitchDrop::kNoSuchPort, SwitchDrop::kNoBufferForOutput}) {
    const auto& all = stats.drops();
    const auto found = std::ranges::find(
        all, info(cause).name, [](const auto& d) { return d.name(); });
    out->add(drops, {{"cause", info(cause).name}},
             found == all.end() ? 0 : number(found->packets()));
  }
}

constexpr MetricSeries<pb::WorkerStats> kWorkerSeries[] = {
    {"ofswitch_worker_running", "1 while the worker moves packets.", kGauge,
     [](const pb::WorkerStats& w) { return number(w.running()); }},
    {"ofswitch_worker_task_runs_total", "Times the worker polled a queue.",
     kCounter, [](const pb::WorkerStats& w) { return number(w.task_runs()); }},
};

void writeWorkers(const pb::StatsReply& stats, MetricWriter* out) {
  out->each<pb::WorkerStats>(
      kWorkerSeries, stats.workers(), [](const pb::WorkerStats& worker) {
        return MetricLabels{
            {"worker", fmt::to_string(worker.worker())},
            {"core",
             worker.core() < 0 ? "any" : fmt::to_string(worker.core())}};
      });
}

// --- tables ---

constexpr MetricSeries<pb::Table> kTableSeries[] = {
    {"ofswitch_table_flows", "Flows in force in the table.", kGauge,
     [](const pb::Table& t) { return number(t.flows()); }},
    {"ofswitch_table_entered_packets_total", "Packets that came to the table.",
     kCounter, [](const pb::Table& t) { return number(t.entered()); }},
    {"ofswitch_table_matched_packets_total",
     "Packets that a flow of the table matched.", kCounter,
     [](const pb::Table& t) { return number(t.matched()); }},
};

struct TableClassifier {
  uint32_t table;
  const char* family;
  const pb::Table::Classifier* classifier;
};

constexpr MetricSeries<TableClassifier> kClassifierSeries[] = {
    {"ofswitch_classifier_rules",
     "Rules in the classifier; a flow has one, and with dec_ttl up to three.",
     kGauge,
     [](const TableClassifier& c) { return number(c.classifier->flows()); }},
    {"ofswitch_classifier_builds_total", "Builds that were published.",
     kCounter,
     [](const TableClassifier& c) { return number(c.classifier->builds()); }},
    {"ofswitch_classifier_failed_builds_total",
     "Builds that failed and changed nothing.", kCounter,
     [](const TableClassifier& c) {
       return number(c.classifier->failed_builds());
     }},
    {"ofswitch_classifier_last_build_seconds", "Duration of the last build.",
     kGauge,
     [](const TableClassifier& c) {
       return seconds(c.classifier->last_build_ns());
     }},
    {"ofswitch_classifier_longest_build_seconds",
     "Duration of the longest build.", kGauge,
     [](const TableClassifier& c) {
       return seconds(c.classifier->longest_build_ns());
     }},
    {"ofswitch_classifier_build_seconds_total",
     "Time spent on builds altogether.", kCounter,
     [](const TableClassifier& c) {
       return seconds(c.classifier->total_build_ns());
     }},
};

// Whether the table has ever been of any use.
bool used(const pb::Table& table) {
  const auto built = [](const pb::Table::Classifier& one) {
    return one.builds() + one.failed_builds() > 0;
  };
  return table.flows() + table.entered() > 0 || built(table.ipv4()) ||
         built(table.ipv6()) ||
         std::ranges::any_of(table.counters(), [](const auto& counter) {
           return counter.value() > 0;
         });
}

void writeTables(const pb::TablesReply& reply, MetricWriter* out) {
  std::vector<pb::Table> tables;
  std::ranges::copy_if(reply.tables(), std::back_inserter(tables), used);
  out->each<pb::Table>(kTableSeries, tables, [](const pb::Table& table) {
    return MetricLabels{{"table", fmt::to_string(table.table())}};
  });

  const size_t drops =
      out->begin("ofswitch_table_dropped_packets_total",
                 "Packets whose way ended in the table, by cause.", kCounter);
  const size_t counters = out->begin(
      "ofswitch_table_module_events_total",
      "The OpenFlow module's own counters, by their names.", kCounter);
  std::vector<TableClassifier> classifiers;
  for (const pb::Table& table : tables) {
    const std::string number = fmt::to_string(table.table());
    for (const pb::DropCause& drop : table.drops()) {
      out->add(drops, {{"table", number}, {"cause", drop.name()}},
               static_cast<double>(drop.packets()));
    }
    for (const pb::Table::Counter& counter : table.counters()) {
      out->add(counters, {{"table", number}, {"counter", counter.name()}},
               static_cast<double>(counter.value()));
    }
    classifiers.push_back({table.table(), "ipv4", &table.ipv4()});
    classifiers.push_back({table.table(), "ipv6", &table.ipv6()});
  }
  out->each<TableClassifier>(
      kClassifierSeries, classifiers, [](const TableClassifier& one) {
        return MetricLabels{{"table", fmt::to_string(one.table)},
                            {"family", one.family}};
      });
}

// --- flows ---

void writeFlows(const LiveSwitch::Reading& reading, MetricWriter* out) {
  const size_t packets = out->begin("ofswitch_flow_packets_total",
                                    "Packets that matched the flow.", kCounter);
  const size_t bytes =
      out->begin("ofswitch_flow_bytes_total",
                 "Bytes of the packets that matched the flow.", kCounter);
  for (const LiveSwitch::FlowReading& one : reading.flows) {
    const Flow& flow = one.flow->flow;
    const MetricLabels labels = {{"table", fmt::to_string(flow.table)},
                                 {"priority", fmt::to_string(flow.priority)},
                                 {"cookie", fmt::format("{:#x}", flow.cookie)},
                                 {"match", matchText(flow.match)}};
    out->add(packets, labels, number(one.packets));
    out->add(bytes, labels, number(one.bytes));
  }
  out->single("ofswitch_flows_without_series",
              "Flows in force that have no series of their own, because "
              "metrics.flows limits them.",
              kGauge, number(reading.stats.flows() - reading.flows.size()));
}

// --- ports ---

constexpr MetricSeries<pb::Port> kPortSeries[] = {
    {"ofswitch_port_up", "1 while the port's link is up.", kGauge,
     [](const pb::Port& p) { return number(p.link_up()); }},
    {"ofswitch_port_speed_bytes",
     "Speed of the link in bytes a second; 0 if unknown.", kGauge,
     [](const pb::Port& p) { return number(p.speed_mbps()) * 1e6 / 8; }},
    {"ofswitch_port_mtu_bytes", "MTU of the port; 0 for the controller.",
     kGauge, [](const pb::Port& p) { return number(p.mtu()); }},
    {"ofswitch_port_receive_queues", "Queues the port receives from.", kGauge,
     [](const pb::Port& p) { return number(p.rx_queues()); }},
    {"ofswitch_port_transmit_queues", "Queues the port sends to.", kGauge,
     [](const pb::Port& p) { return number(p.tx_queues()); }},
    {"ofswitch_port_receive_packets_total",
     "Packets taken from the device and given to the tables.", kCounter,
     [](const pb::Port& p) { return number(p.rx_packets()); }},
    {"ofswitch_port_receive_bytes_total",
     "Bytes taken from the device and given to the tables.", kCounter,
     [](const pb::Port& p) { return number(p.rx_bytes()); }},
    {"ofswitch_port_transmit_packets_total", "Packets handed to the device.",
     kCounter, [](const pb::Port& p) { return number(p.tx_packets()); }},
    {"ofswitch_port_transmit_bytes_total", "Bytes handed to the device.",
     kCounter, [](const pb::Port& p) { return number(p.tx_bytes()); }},
};

MetricLabels portLabels(const pb::Port& port) {
  return {{"port", fmt::to_string(port.port())}, {"name", port.name()}};
}

void writePorts(const pb::PortsReply& reply, MetricWriter* out) {
  const size_t about =
      out->begin("ofswitch_port_info", "What the port is; always 1.", kGauge);
  for (const pb::Port& port : reply.ports()) {
    MetricLabels labels = portLabels(port);
    labels.push_back({"device", port.device()});
    labels.push_back({"driver", port.driver()});
    labels.push_back({"mac", port.mac()});
    out->add(about, std::move(labels), 1);
  }
  out->each<pb::Port>(kPortSeries, reply.ports(), portLabels);
  const size_t drops =
      out->begin("ofswitch_port_dropped_packets_total",
                 "Packets that ended at the port, by cause.", kCounter);
  for (const pb::Port& port : reply.ports()) {
    for (const pb::DropCause& drop : port.drops()) {
      MetricLabels labels = portLabels(port);
      labels.push_back({"cause", drop.name()});
      out->add(drops, std::move(labels), number(drop.packets()));
    }
  }
}

}  // namespace

std::vector<prometheus::MetricFamily> metricFamilies(
    const LiveSwitch::Reading& reading) {
  MetricWriter out;
  writeSwitch(reading.stats, &out);
  writeWorkers(reading.stats, &out);
  writePorts(reading.ports, &out);
  writeTables(reading.tables, &out);
  writeFlows(reading, &out);
  return out.take();
}

}  // namespace ofswitch
