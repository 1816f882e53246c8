// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/host_report.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdint>
#include <numeric>
#include <string>

#include "control.h"
#include "graph.h"
#include "module.h"
#include "packet_pool.h"
#include "plugin.h"
#include "ports/port.h"
#include "worker.h"

namespace ofswitch {
namespace {

template <class Reply, class Fn>
Reply onControl(Fn fill) {
  Reply reply;
  bess::ControlThread::Instance().Run([&] { fill(&reply); });
  return reply;
}

void describe(const Module& module,
              bess::pb::ListModulesResponse::Module* entry) {
  entry->set_name(module.name());
  entry->set_class_name(module.module_builder()->class_name());
  entry->set_description(module.GetDesc());
}

uint64_t endedPackets(const Module& module) {
  const auto ends = module.deadends();
  return std::accumulate(ends.begin(), ends.end(), uint64_t{0});
}

void describeGates(const Module& module, bess::pb::GetModuleResponse* reply) {
  for (const bess::IGate* gate : module.igates()) {
    if (gate == nullptr) continue;
    auto* entry = reply->add_input_gates();
    entry->set_gate(gate->gate_idx());
    for (const bess::OGate* upstream : gate->ogates_upstream()) {
      auto* from = entry->add_from();
      from->set_module(upstream->module()->name());
      from->set_output_gate(upstream->gate_idx());
    }
  }
  for (const bess::OGate* gate : module.ogates()) {
    if (gate == nullptr) continue;
    auto* entry = reply->add_output_gates();
    entry->set_gate(gate->gate_idx());
    entry->set_to_module(gate->next()->name());
    entry->set_input_gate(gate->igate()->gate_idx());
    entry->set_packets(gate->packets());
  }
}

}  // namespace

bess::pb::ListModuleClassesResponse listModuleClasses() {
  using Reply = bess::pb::ListModuleClassesResponse;
  return onControl<Reply>([](Reply* reply) {
    for (const auto& [name, builder] : ModuleBuilder::all_module_builders()) {
      auto* entry = reply->add_classes();
      entry->set_name(name);
      entry->set_help(builder.help_text());
      entry->set_input_gates(builder.NumIGates());
      entry->set_output_gates(builder.NumOGates());
      entry->set_plugin(builder.owner());
      for (const Command& command : builder.cmds()) {
        auto* one = entry->add_commands();
        one->set_name(command.cmd);
        one->set_arg_type(command.arg_type);
        one->set_thread_safe(command.mt_safe == THREAD_SAFE);
      }
    }
  });
}

bess::pb::ListPluginsResponse listPlugins() {
  using Reply = bess::pb::ListPluginsResponse;
  return onControl<Reply>([](Reply* reply) {
    for (const bess::PluginInfo& plugin : bess::ListPlugins()) {
      auto* entry = reply->add_plugins();
      entry->set_path(plugin.path);
      for (const std::string& name : plugin.classes) entry->add_classes(name);
    }
  });
}

bess::pb::ListModulesResponse listModules() {
  using Reply = bess::pb::ListModulesResponse;
  return onControl<Reply>([](Reply* reply) {
    for (const Module* module : bess::ListModules()) {
      describe(*module, reply->add_modules());
    }
  });
}

bess::pb::GetModuleResponse getModule(
    const bess::pb::GetModuleRequest& request) {
  using Reply = bess::pb::GetModuleResponse;
  return onControl<Reply>([&](Reply* reply) {
    const Module* module = bess::FindModule(request.name());
    if (module == nullptr) {
      reply->mutable_error()->set_code(ENOENT);
      reply->mutable_error()->set_errmsg(
          fmt::format("there is no module '{}'", request.name()));
      return;
    }
    describe(*module, reply->mutable_module());
    describeGates(*module, reply);
    for (const int wid : Worker::List()) {
      if (module->is_active_worker(wid)) {
        reply->add_workers(static_cast<uint32_t>(wid));
      }
    }
    reply->set_ended_packets(endedPackets(*module));
  });
}

bess::pb::ListPortsResponse listPorts() {
  using Reply = bess::pb::ListPortsResponse;
  return onControl<Reply>([](Reply* reply) {
    for (const bess::Port* port : bess::ListPorts()) {
      auto* entry = reply->add_ports();
      entry->set_number(port->number());
      entry->set_name(port->name());
      entry->set_device(port->device());
      entry->set_driver(port->driver());
      entry->set_mac(port->mac());
      entry->set_mtu(port->mtu());
      entry->set_rx_queues(port->rx_queues());
      entry->set_tx_queues(port->tx_queues());
      entry->set_link_up(port->link_up());
    }
  });
}

bess::pb::ListWorkersResponse listWorkers() {
  using Reply = bess::pb::ListWorkersResponse;
  return onControl<Reply>([](Reply* reply) {
    for (const int wid : Worker::List()) {
      auto* entry = reply->add_workers();
      entry->set_worker(static_cast<uint32_t>(wid));
      entry->set_running(Worker::IsRunning(wid));
      entry->set_task_runs(Worker::Runs(wid));
      for (const Module* module : bess::ListModules()) {
        if (module->is_active_worker(wid)) entry->add_modules(module->name());
      }
    }
  });
}

bess::pb::StatisticsResponse getStatistics() {
  using Reply = bess::pb::StatisticsResponse;
  return onControl<Reply>([](Reply* reply) {
    for (const bess::Port* port : bess::ListPorts()) {
      auto* entry = reply->add_ports();
      entry->set_number(port->number());
      entry->set_name(port->name());
      const bess::PortStats stats = port->stats();
      const auto add = [entry](const char* name, uint64_t value) {
        auto* counter = entry->add_counters();
        counter->set_name(name);
        counter->set_value(value);
      };
      add("rx_received", stats.rx_received);
      add("rx_packets", stats.rx_packets);
      add("rx_bytes", stats.rx_bytes);
      add("tx_entered", stats.tx_entered);
      add("tx_packets", stats.tx_packets);
      add("tx_bytes", stats.tx_bytes);
      for (const bess::DropCauseInfo& cause : bess::kDropCauses) {
        add(cause.name, stats.drop(cause.cause));
      }
    }
    for (const Module* module : bess::ListModules()) {
      auto* entry = reply->add_modules();
      entry->set_name(module->name());
      entry->set_ended_packets(endedPackets(*module));
    }
    const bess::PacketPool* pool = bess::PacketPool::Default();
    reply->set_packet_buffers(pool->capacity());
    reply->set_free_packet_buffers(pool->available());
  });
}

}  // namespace ofswitch
