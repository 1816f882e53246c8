// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <bitset>
#include <cstdint>
#include <string>
#include <vector>

#include "module.h"
#include "ports/port.h"
#include "switch/flow/flow.h"
#include "switch/live/config.h"
#include "switch/live/controller_port.h"
#include "switch/live/flow_programmer.h"

namespace ofswitch {

// Everything of the host that a switch consists of: the module and its tables'
// slots, the ports, the controller, the workers and their counters. Made in
// two steps, so that flows are there before the first packet. On any thread
// but a worker; what goes wrong is thrown as StartError.
class SwitchGraph {
 public:
  struct SwitchPort {
    const PortConfig* config = nullptr;
    bess::Port* port = nullptr;
  };
  struct SwitchWorker {
    int wid = 0;
    int core = Worker::kNoCore;
    std::vector<std::string> tasks;
  };

  // `config` must outlive it.
  explicit SwitchGraph(const SwitchConfig& config) : config_(config) {}
  // Takes apart what was made, workers first.
  ~SwitchGraph();
  SwitchGraph(const SwitchGraph&) = delete;
  SwitchGraph& operator=(const SwitchGraph&) = delete;

  // The environment, the module and everything behind its gates.
  void makeOutputs();
  // Everything in front of it; then packets flow.
  void startWorkers();
  // Lets every worker end what it is at, and stops them.
  void stopWorkers();
  // Writes what the controller's capture still has to, when no worker runs any
  // more. Answers what went wrong with it. On the command thread.
  std::string stopCapture();

  // The way to the module for flow changes. On the command thread.
  ModuleDoor door();

  // The module's counters of one table. On the command thread.
  quil::pb::OpenFlowGetStatsRespArg tableStats(uint8_t table) const;

  const std::vector<SwitchPort>& ports() const { return ports_; }
  const std::vector<SwitchWorker>& workers() const { return workers_; }
  const Module& module() const { return *module_; }
  const ControllerPort& controller() const { return *controller_; }
  // Of the host's packets, since the graph was made.
  uint64_t failedCopies() const;
  const std::vector<std::string>& notes() const { return notes_; }

 private:
  void startEnvironment();
  void makeModule();
  void openPorts();
  void makeController();
  void makeInputs();
  UpdateAnswer update(const TableUpdate& update, Sender sender);

  const SwitchConfig& config_;
  std::vector<std::string> notes_;
  std::string plugin_;  // when it is loaded
  Module* module_ = nullptr;
  std::bitset<kNumTables> programmed_;  // an update was sent to it
  ControllerPort* controller_ = nullptr;
  std::vector<SwitchPort> ports_;
  std::vector<std::string> opened_;  // names of ports
  std::vector<SwitchWorker> workers_;
  uint64_t failedCopiesBefore_ = 0;
};

}  // namespace ofswitch
