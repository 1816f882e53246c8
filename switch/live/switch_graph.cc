// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/switch_graph.h"

#include <fmt/format.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <stdexcept>

#include "control.h"
#include "dpdk_log.h"
#include "eal.h"
#include "graph.h"
#include "packet_pool.h"
#include "pb/port_msg.pb.h"
#include "platform/quil_modules/counter_db.h"
#include "plugin.h"
#include "switch/live/live_switch.h"
#include "switch/replay/module_commands.h"
#include "switch/replay/module_path.h"
#include "utils/acl_build_memory.h"

namespace ofswitch {
namespace {

using QuilModules::bessCounterDb;

constexpr char kController[] = "controller";

void require(const std::string& error) {
  if (!error.empty()) throw StartError(error);
}

void require(const CommandResponse& response, const std::string& what) {
  if (response.error().code() != 0) {
    throw StartError(fmt::format("{}: {}", what, response.error().errmsg()));
  }
}

// With the line of the configuration that asked for it, if there was one.
std::string placed(const std::string& place, const std::string& error) {
  return place.empty() ? error : place + ": " + error;
}

Module* make(const std::string& className, const std::string& name,
             const google::protobuf::Any& arg = {}) {
  const bess::CreateResult made = bess::CreateModule(className, name, arg);
  require(made.response, name);
  return made.module;
}

}  // namespace

SwitchGraph::~SwitchGraph() {
  stopWorkers();
  bess::DestroyAllModules();
  for (; !opened_.empty(); opened_.pop_back()) bess::ClosePort(opened_.back());
  bess::ControlThread::Instance().Run([this] {
    for (const SwitchWorker& worker : workers_) {
      bessCounterDb.destroy(worker.wid);
    }
  });
  if (!plugin_.empty()) bess::UnloadPlugin(plugin_);
}

void SwitchGraph::makeOutputs() {
  startEnvironment();
  makeModule();
  openPorts();
  makeController();
}

void SwitchGraph::startEnvironment() {
  bess::EalOptions options;
  options.memory_mb = config_.memoryMb;
  options.hugepages = config_.hugepages;
  for (const PortConfig& port : config_.ports) {
    if (bess::Port::IsPci(port.device)) options.pci.push_back(port.device);
  }
  options.shareable =
      std::ranges::any_of(config_.ports, [](const PortConfig& port) {
        return bess::Port::SharesMemory(port.device);
      });
  if (config_.dpdkTelemetry) options.telemetry = "ofswitch";
  require(bess::InitEal(options));
  if (config_.buildMb != 0) Dpdk::setAclBuildLimit(config_.buildMb << 20);
  try {
    const bess::DpdkLogCapture log;
    bess::PacketPool::MakeDefault(config_.packetBuffers);
  } catch (const std::runtime_error& error) {
    throw StartError(fmt::format("{}; raise memory.mb or lower memory.buffers",
                                 error.what()));
  }
  if (!bess::HasHugePages()) {
    notes_.push_back(fmt::format(
        "memory without hugepages: table lookups and packet copies miss the "
        "processor's TLB more often than they need to; \"sysctl -w "
        "vm.nr_hugepages={}\" and \"memory: {{hugepages: true}}\" give them "
        "2 MiB pages",
        (config_.memoryMb + 1) / 2));
  }
  failedCopiesBefore_ = bess::Packet::failed_copies();
}

void SwitchGraph::makeModule() {
  try {
    const std::string path =
        findModule(config_.module.path, "\"module: FILE.so\"");
    module_ = ofswitch::makeModule(path);
    plugin_ = path;
  } catch (const std::runtime_error& error) {
    throw StartError(config_.module.placed(error.what()));
  }
}

void SwitchGraph::openPorts() {
  for (const PortConfig& config : config_.ports) {
    bess::PortOptions options;
    options.device = config.device;
    options.number = config.number;
    options.rx_queues = config.queues;
    options.tx_queues = static_cast<uint16_t>(config_.workers.size());
    options.mtu = config.mtu;
    if (const std::string error = bess::OpenPort(config.name, options);
        !error.empty()) {
      throw StartError(placed(config.place, error));
    }
    opened_.push_back(config.name);
    SwitchPort port{&config, bess::FindPort(config.name)};
    if (port.port->rx_queues() != config.queues) {
      notes_.push_back(fmt::format(
          "port {}: {} receive queues instead of {}, as the device has it",
          config.number, port.port->rx_queues(), config.queues));
    }
    ports_.push_back(port);
    bess::pb::PortOutArg arg;
    arg.set_port(config.name);
    const std::string name = config.name + "_out";
    make("PortOut", name, packed(arg));
    require(bess::ConnectModules(kModuleName, config.number, name, 0), name);
  }
}

void SwitchGraph::makeController() {
  controller_ = static_cast<ControllerPort*>(
      make(ControllerPort::kClassName, kController));
  require(bess::ConnectModules(kModuleName, 0, kController, 0), kController);
  const ConfiguredFile& capture = config_.controllerCapture;
  if (capture.path.empty()) return;
  std::string error;
  bess::ControlThread::Instance().Run(
      [&] { error = controller_->startCapture(capture.path); });
  if (!error.empty()) {
    throw StartError(capture.placed("controller.capture: " + error));
  }
}

void SwitchGraph::startWorkers() {
  for (size_t i = 0; i < config_.workers.size(); i++) {
    SwitchWorker worker{static_cast<int>(i), config_.workers[i], {}};
    if (const std::string error = Worker::Add(worker.wid, worker.core);
        !error.empty()) {
      const std::string& place = config_.workersPlace;
      throw StartError(placed(place.empty() ? "" : place + ": workers", error));
    }
    workers_.push_back(worker);
    bess::ControlThread::Instance().Run(
        [&] { bessCounterDb.create(worker.wid, config_.counters); });
  }
  makeInputs();
  require(Worker::ResumeAll());
}

// Queues are dealt out to the workers one by one, so that the queues of one
// port land on different workers.
void SwitchGraph::makeInputs() {
  size_t next = 0;
  for (const SwitchPort& port : ports_) {
    for (uint32_t queue = 0; queue < port.port->rx_queues(); queue++) {
      bess::pb::PortInArg arg;
      arg.set_port(port.config->name);
      arg.set_queue(queue);
      Module* input =
          make("PortIn", fmt::format("{}_in{}", port.config->name, queue),
               packed(arg));
      require(bess::ConnectModules(input->name(), 0, kModuleName, 0),
              input->name());
      SwitchWorker& worker = workers_[next++ % workers_.size()];
      require(Worker::AttachTasks(input, worker.wid));
      worker.tasks.push_back(
          fmt::format("{} queue {}", port.config->name, queue));
    }
  }
}

void SwitchGraph::stopWorkers() {
  Worker::PauseAll();
  for (const SwitchWorker& worker : workers_) Worker::Stop(worker.wid);
  bess::ControlThread::Instance().Run([this] { stopCapture(); });
}

std::string SwitchGraph::stopCapture() {
  return controller_ == nullptr ? "" : controller_->stopCapture();
}

ModuleDoor SwitchGraph::door() {
  return {[this](const TableUpdate& one, Sender sender) {
            return update(one, sender);
          },
          [] { synchronize_rcu(); }};
}

// A table other than the first is entered by flows that lead there, and they
// bring it a flow of its own. Until then it has counted nothing, and is not
// asked: every question leaves a line in the trace ring, and whoever scrapes
// metrics would soon have pushed out what else there is.
quil::pb::OpenFlowGetStatsRespArg SwitchGraph::tableStats(uint8_t table) const {
  if (table != 0 && !programmed_[table]) return {};
  return ofswitch::tableStats(table);
}

UpdateAnswer SwitchGraph::update(const TableUpdate& update, Sender sender) {
  programmed_[update.tableid()] = true;
  return updateTable(update, sender, {"memory.mb", "memory.build_mb"});
}

uint64_t SwitchGraph::failedCopies() const {
  return bess::Packet::failed_copies() - failedCopiesBefore_;
}

}  // namespace ofswitch
