// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/switch_report.h"

#include <urcu-qsbr.h>

#include <algorithm>

#include "packet_pool.h"

namespace ofswitch {
namespace {

uint64_t receivedPackets(const SwitchGraph& graph) {
  uint64_t sum = 0;
  for (const SwitchGraph::SwitchPort& port : graph.ports()) {
    sum += port.port->stats().rx_packets;
  }
  return sum;
}

uint64_t gatePackets(const SwitchGraph& graph, uint16_t gate) {
  const auto& gates = graph.module().ogates();
  return gate < gates.size() && gates[gate] != nullptr ? gates[gate]->packets()
                                                       : 0;
}

void fillClassifier(const BuildHistory& history, size_t rules,
                    pb::Table::Classifier* classifier) {
  classifier->set_flows(rules);
  classifier->set_builds(history.builds);
  classifier->set_failed_builds(history.failures);
  classifier->set_last_build_ns(static_cast<uint64_t>(history.last.count()));
  classifier->set_longest_build_ns(
      static_cast<uint64_t>(history.longest.count()));
  classifier->set_total_build_ns(static_cast<uint64_t>(history.total.count()));
}

void fillCounters(const quil::pb::OpenFlowGetStatsRespArg& stats,
                  pb::Table* table) {
  const auto add = [&](const char* name, uint64_t value) {
    pb::Table::Counter* counter = table->add_counters();
    counter->set_name(name);
    counter->set_value(value);
  };
  add("updateFailures", stats.updatefailures());
  add("aclCreateFailures", stats.aclcreatefailures());
  add("aclAddRulesFailures", stats.acladdrulesfailures());
  add("aclBuildFailures", stats.aclbuildfailures());
  add("classifyErrors", stats.classifyerrors());
  add("noAclCtx", stats.noaclctx());
  add("noClassifier", stats.noclassifier());
  add("batchDrops", stats.batchdrops());
  add("tableMisses", stats.tablemisses());
  add("spareCounter", stats.sparecounter());
  add("dropActions", stats.dropactions());
  add("noOutputDrops", stats.nooutputdrops());
}

void fillPortDrops(const bess::PortStats& stats, uint16_t number,
                   google::protobuf::RepeatedPtrField<pb::DropCause>* drops) {
  for (const bess::DropCauseInfo& cause : bess::kDropCauses) {
    *drops->Add() = dropCause(cause, stats.drop(cause.cause), number);
  }
}

}  // namespace

SwitchCounts readCounts(const SwitchGraph& graph, const FlowBook& book) {
  SwitchCounts counts;
  const uint64_t before = receivedPackets(graph);
  // Whatever was received before has then gone all its way.
  synchronize_rcu();
  for (const uint64_t ends : graph.module().deadends()) {
    counts.deadEnds += ends;
  }
  counts.matched = book.matched();
  for (uint8_t table = 0; table < kNumTables; table++) {
    counts.tables[table] = graph.tableStats(table);
  }
  counts.controllerGatePackets = gatePackets(graph, 0);
  counts.controller = graph.controller().counts();
  counts.failedCopies = graph.failedCopies();
  for (const SwitchGraph::SwitchPort& port : graph.ports()) {
    SwitchCounts::Port& counted = counts.ports.emplace_back();
    counted.number = port.config->number;
    counted.gatePackets = gatePackets(graph, port.config->number);
    counted.stats = port.port->stats();
  }
  // What was on its way between two tables has arrived when they are read
  // again.
  synchronize_rcu();
  counts.matchedLater = book.matched();
  // Last: a packet that has left any trace above has been counted here.
  counts.exact = before == receivedPackets(graph);
  return counts;
}

pb::TablesReply tablesReply(const SwitchCounts& counts,
                            const SwitchAccount& account, const FlowBook& book,
                            const FlowProgrammer& programmer, bool all) {
  pb::TablesReply reply;
  for (uint8_t number = 0; number < kNumTables; number++) {
    const TableAccount& counted = account.tables[number];
    const bool used = book.numRules(number, false) > 0 ||
                      book.numRules(number, true) > 0 || counted.entered > 0;
    if (!used && !all) continue;
    pb::Table* table = reply.add_tables();
    table->set_table(number);
    table->set_flows(book.numFlows(number));
    for (const bool ipv6 : {false, true}) {
      fillClassifier(programmer.history(number, ipv6),
                     book.numRules(number, ipv6),
                     ipv6 ? table->mutable_ipv6() : table->mutable_ipv4());
    }
    table->set_entered(counted.entered);
    table->set_matched(counted.matched);
    for (const SwitchDropInfo& cause : kSwitchDrops) {
      if (cause.cause >= SwitchDrop::kNoSuchPort) continue;
      pb::DropCause* drop = table->add_drops();
      *drop = dropCause(cause.cause, counted.drop(cause.cause));
      drop->set_table(number);
    }
    fillCounters(counts.tables[number], table);
  }
  return reply;
}

pb::PortsReply portsReply(const SwitchGraph& graph) {
  pb::PortsReply reply;
  const ControllerPort::Counts counts = graph.controller().counts();
  pb::Port* controller = reply.add_ports();
  controller->set_name("controller");
  controller->set_link_up(true);
  controller->set_tx_packets(counts.packets);
  controller->set_tx_bytes(counts.bytes);
  *controller->add_drops() =
      dropCause(SwitchDrop::kControllerQueueFull, counts.notCaptured);
  *controller->add_drops() =
      dropCause(SwitchDrop::kControllerCaptureFailed, counts.notWritten);
  for (const SwitchGraph::SwitchPort& one : graph.ports()) {
    pb::Port* port = reply.add_ports();
    const bess::PortLink link = one.port->link();
    const bess::PortStats stats = one.port->stats();
    port->set_port(one.config->number);
    port->set_name(one.config->name);
    port->set_device(one.config->device);
    port->set_driver(one.port->driver());
    port->set_mac(one.port->mac());
    port->set_link_up(link.up);
    port->set_speed_mbps(link.mbps);
    port->set_mtu(one.port->mtu());
    port->set_rx_queues(one.port->rx_queues());
    port->set_tx_queues(one.port->tx_queues());
    port->set_rx_packets(stats.rx_packets);
    port->set_rx_bytes(stats.rx_bytes);
    port->set_tx_packets(stats.tx_packets);
    port->set_tx_bytes(stats.tx_bytes);
    fillPortDrops(stats, one.config->number, port->mutable_drops());
  }
  return reply;
}

pb::StatsReply statsReply(const SwitchCounts& counts,
                          const SwitchAccount& account,
                          const SwitchGraph& graph) {
  pb::StatsReply reply;
  reply.set_packets_received(account.received);
  reply.set_packets_forwarded(account.forwarded);
  reply.set_copies_output(account.copiesOutput);
  reply.set_packets_sent(account.sent);
  reply.set_packets_in_flight(account.inFlight);
  reply.set_bytes_sent(counts.controller.bytes);
  for (const SwitchCounts::Port& port : counts.ports) {
    reply.set_bytes_received(reply.bytes_received() + port.stats.rx_bytes);
    reply.set_bytes_sent(reply.bytes_sent() + port.stats.tx_bytes);
  }
  for (uint8_t table = 0; table < kNumTables; table++) {
    for (const SwitchDropInfo& cause : kSwitchDrops) {
      const uint64_t packets = account.tables[table].drop(cause.cause);
      if (packets == 0) continue;
      pb::DropCause* drop = reply.add_drops();
      *drop = dropCause(cause.cause, packets);
      drop->set_table(table);
    }
  }
  for (const SwitchDrop cause :
       {SwitchDrop::kNoSuchPort, SwitchDrop::kNoBufferForOutput,
        SwitchDrop::kControllerQueueFull,
        SwitchDrop::kControllerCaptureFailed}) {
    *reply.add_drops() =
        dropCause(cause, account.drops[static_cast<size_t>(cause)]);
  }
  for (const SwitchCounts::Port& port : counts.ports) {
    fillPortDrops(port.stats, port.number, reply.mutable_drops());
  }
  reply.set_exact(account.exact);
  reply.set_closes(account.discrepancies.empty());
  for (const std::string& sentence : account.discrepancies) {
    reply.add_discrepancies(sentence);
  }
  for (const SwitchGraph::SwitchWorker& worker : graph.workers()) {
    pb::WorkerStats* stats = reply.add_workers();
    stats->set_worker(static_cast<uint32_t>(worker.wid));
    stats->set_core(worker.core);
    stats->set_running(Worker::IsRunning(worker.wid));
    stats->set_task_runs(Worker::Runs(worker.wid));
    for (const std::string& task : worker.tasks) stats->add_tasks(task);
  }
  const bess::PacketPool* pool = bess::PacketPool::Default();
  reply.set_buffers_total(pool->capacity());
  reply.set_buffers_free(pool->available());
  return reply;
}

}  // namespace ofswitch
