// SPDX-License-Identifier: BSD-3-Clause
//
// What stands behind ModuleHarness: the instance in the host's graph between a
// source and a sink, and for each worker a task whose runs it measures.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "module.h"
#include "modules/sink.h"
#include "task.h"
#include "tests/support/module_harness.h"
#include "tests/support/packet_factory.h"

namespace openflow_test {

// Throws std::runtime_error when the command failed.
void requireSuccess(const CommandResponse& response, const std::string& what);

class ModuleHarness::Impl {
 public:
  using TableFamily = std::pair<uint32_t, Family>;

  explicit Impl(HarnessOptions options);
  ~Impl();

  CommandResponse command(const std::string& name,
                          const google::protobuf::Message& arg);
  void noteFlows(const quil::pb::OpenFlowUpdateFlowsArg& arg);
  void forgetFlows() { flows_.clear(); }
  const std::map<TableFamily, std::set<uint32_t>>& flows() const {
    return flows_;
  }

  RunResult run(const std::vector<InputPacket>& packets, int wid);
  uint64_t flowCounter(uint32_t id, int wid) const;
  TableCounters tableCounters(unsigned table);

  PacketFactory packets;
  std::function<void()> beforeBatch;
  const HarnessOptions options;
  Module* module = nullptr;

 private:
  struct PerWorker {
    std::unique_ptr<Task> task;
    // Taken from the sink, not handed out yet.
    std::vector<Sink::Captured> captured;
    std::vector<uint64_t> countersAtStart;
    bool ownsCounters = false;
  };

  // What run() measures the growth of.
  struct Totals {
    uint64_t drops;
    std::array<TableCounters, kFlowTables> tables;
    std::vector<uint64_t> flowCounters;
    size_t packets;
  };

  void build();
  void destroy();
  PerWorker& worker(int wid);
  Totals totals(int wid);
  std::vector<Sink::Captured> takeCaptured(int wid);
  void process(const std::vector<InputPacket>& packets, int wid);

  std::string name_, sinkName_, feedName_;
  Sink* sink_ = nullptr;
  std::mutex mutex_;  // over workers_, the factory and what is captured
  std::array<PerWorker, Worker::kMaxWorkers> workers_;
  std::map<TableFamily, std::set<uint32_t>> flows_;
};

}  // namespace openflow_test
