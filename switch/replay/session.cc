// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/session.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <stdexcept>
#include <thread>

#include "control.h"
#include "eal.h"
#include "graph.h"
#include "modules/capture_sink.h"
#include "modules/capture_source.h"
#include "packet_pool.h"
#include "platform/quil_modules/counter_db.h"
#include "plugin.h"
#include "switch/replay/module_commands.h"
#include "switch/replay/require.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/progress.h"
#include "utils/acl_build_memory.h"
#include "worker.h"

namespace ofswitch {
namespace {

using QuilModules::bessCounterDb;

constexpr auto kPoll = std::chrono::milliseconds(2);

// Copies for output that one packet of a flow leaves, at least and at most.
std::pair<uint32_t, uint32_t> outputsOf(const quil::pb::OfAction& action) {
  const auto& fields = action.fields();
  uint32_t once = fields.setoutputinport() + fields.setoutputcontroller();
  const auto gates = static_cast<uint32_t>(action.values().ogate_size());
  if (fields.setoutputport()) {
    once += gates;
  }
  if (!fields.setoutputall() && !fields.setoutputflood()) {
    return {once, once};
  }
  std::map<uint32_t, uint32_t> times;
  uint32_t most = 0;
  for (const uint32_t gate : action.values().ogate()) {
    most = std::max(most, ++times[gate & 0xffff]);
  }
  return {once + gates - most, once + gates};
}

class Session {
 public:
  Session(const Policy& policy, const SessionOptions& options)
      : policy_(policy), options_(options) {}

  ~Session() {
    Worker::StopAll();
    bess::DestroyAllModules();
    onControlThread([this] {
      for (int wid = 0; wid < counted_; wid++) {
        bessCounterDb.destroy(wid);
      }
    });
    if (loaded_) {
      bess::UnloadPlugin(options_.modulePath);
    }
  }

  SessionResult run() {
    setUp();
    applyPolicy();
    connectOutputs();
    connectInputs();
    play();
    collect();
    return std::move(result_);
  }

 private:
  static void onControlThread(const std::function<void()>& fn) {
    bess::ControlThread::Instance().Run(fn);
  }

  void setUp() {
    require(bess::InitEal({.memory_mb = options_.memoryMb}));
    if (options_.buildMb != 0) Dpdk::setAclBuildLimit(options_.buildMb << 20);
    buffersBefore_ = bess::PacketPool::Default()->available();
    failedBefore_ = bess::Packet::failed_copies();
    switch_ = makeModule(options_.modulePath);
    loaded_ = true;
  }

  // Classifiers of many flows take their time to build.
  void applyPolicy() {
    std::atomic<size_t> done = 0;
    std::future<void> work = std::async(std::launch::async, [&] {
      for (const PolicyCommand& one : policy_.commands) {
        const CommandResponse response = applyCommand(one);
        ReplayCounts::Reply reply{one.where, {}};
        if (response.data().UnpackTo(&reply.stats)) {
          result_.counts.replies.push_back(std::move(reply));
        }
        done++;
      }
    });
    Progress progress("Loading flows");
    while (work.wait_for(kPoll) != std::future_status::ready) {
      progress.show(done, policy_.commands.size());
    }
    work.get();
  }

  void connectOutputs() {
    std::vector<uint16_t> gates = policy_.ports;
    gates.insert(gates.begin(), 0);
    for (const uint16_t gate : gates) {
      bess::pb::CaptureSinkArg arg;
      arg.set_many_workers(options_.workers > 1);
      if (!options_.outDir.empty()) {
        const std::string file = outputFile(options_.outDir, gate);
        std::filesystem::remove(file);
        std::filesystem::remove(CaptureSink::PartOf(file));
        arg.set_path(file);
      }
      const bess::CreateResult made = bess::CreateModule(
          "CaptureSink", fmt::format("port{}", gate), packed(arg));
      require(made.response, "sink");
      sinks_[gate] = static_cast<CaptureSink*>(made.module);
      require(bess::ConnectModules(kModuleName, gate, made.module->name(), 0),
              fmt::format("port {}", gate));
    }
  }

  void connectInputs() {
    bess::pb::CaptureSourceArg arg;
    for (const ReplayInput& input : options_.inputs) {
      auto* one = arg.add_inputs();
      one->set_port(input.port);
      one->set_path(input.path);
    }
    arg.set_shares(static_cast<uint32_t>(options_.workers));
    for (int wid = 0; wid < options_.workers; wid++) {
      arg.set_share(static_cast<uint32_t>(wid));
      const bess::CreateResult made = bess::CreateModule(
          "CaptureSource", fmt::format("captures{}", wid), packed(arg));
      // The text names the file.
      require(made.response.error().errmsg());
      sources_.push_back(static_cast<CaptureSource*>(made.module));
      require(bess::ConnectModules(made.module->name(), 0, kModuleName, 0),
              "captures");
      require(Worker::Add(wid));
      onControlThread([&] { bessCounterDb.create(wid, policy_.numCounters); });
      counted_ = wid + 1;
      require(Worker::AttachTasks(made.module, wid));
    }
  }

  void play() {
    require(Worker::ResumeAll());
    Progress progress("Replaying");
    const auto done = [](const CaptureSource* source) {
      return source->done();
    };
    while (!std::all_of(sources_.begin(), sources_.end(), done)) {
      std::this_thread::sleep_for(kPoll);
      uint64_t position = 0, size = 0;
      for (const CaptureSource* source : sources_) {
        position += source->position();
        size += source->size();
      }
      progress.show(position, size);
    }
    Worker::PauseAll();
  }

  void collect() {
    for (const auto& [gate, sink] : sinks_) {
      if (const std::string error = sink->Finish(); !error.empty()) {
        result_.errors.push_back(error);
      }
    }
    for (const std::string& error : sources_[0]->errors()) {
      result_.errors.push_back(error);
    }
    ReplayCounts& counts = result_.counts;
    countRules(&counts);
    for (uint32_t table = 0; table < kNumTables; table++) {
      counts.tables[table] = tableStats(table);
    }
    countPorts(&counts);
    for (const uint64_t deadends : switch_->deadends()) {
      counts.dropped += deadends;
    }
    counts.failedCopies = bess::Packet::failed_copies() - failedBefore_;
    counts.buffersInUse =
        buffersBefore_ - bess::PacketPool::Default()->available();
    counts.tableCountsExact = options_.workers == 1;
  }

  void countRules(ReplayCounts* counts) const {
    for (const PolicyRule& rule : policy_.rules) {
      ReplayCounts::Rule counted;
      counted.kind = rule.kind;
      counted.table = rule.table;
      counted.action = rule.action.fields();
      counted.nextTable = static_cast<uint8_t>(rule.action.values().nexttbl());
      std::tie(counted.minOutputs, counted.maxOutputs) = outputsOf(rule.action);
      counted.packets = bessCounterDb.sum(rule.packetCounterId);
      counted.bytes = bessCounterDb.sum(rule.byteCounterId);
      counts->rules.push_back(counted);
    }
  }

  void countPorts(ReplayCounts* counts) {
    std::map<uint16_t, ReplayCounts::Port> ports;
    for (const auto& [gate, sink] : sinks_) {
      ReplayCounts::Port& port = ports[gate];
      port.sentTo = switch_->ogates()[gate]->packets();
      port.packetsOut = sink->packets();
      port.bytesOut = sink->bytes();
      if (port.packetsOut > 0 && !options_.outDir.empty()) {
        port.file = outputFile(options_.outDir, gate);
      }
    }
    for (size_t i = 0; i < options_.inputs.size(); i++) {
      const ReplayInput& input = options_.inputs[i];
      uint64_t cut = 0;
      for (const CaptureSource* source : sources_) {
        ports[input.port].packetsIn += source->counts()[i].packets;
        ports[input.port].bytesIn += source->counts()[i].bytes;
        cut += source->counts()[i].cut;
      }
      if (cut > 0) {
        result_.warnings.push_back(
            fmt::format("{}: {} captured without {}, and replayed so",
                        input.path, plural(cut, "packet was", "packets were"),
                        cut == 1 ? "its end" : "their ends"));
      }
    }
    for (auto& [number, port] : ports) {
      port.port = number;
      counts->ports.push_back(port);
    }
  }

  const Policy& policy_;
  const SessionOptions& options_;
  bool loaded_ = false;
  int counted_ = 0;  // workers that have counters
  size_t buffersBefore_ = 0;
  uint64_t failedBefore_ = 0;
  Module* switch_ = nullptr;
  std::map<uint16_t, CaptureSink*> sinks_;  // by gate
  std::vector<CaptureSource*> sources_;     // by worker
  SessionResult result_;
};

}  // namespace

std::string outputFile(const std::string& outDir, uint16_t port) {
  const std::string name =
      port == 0 ? "controller.pcap" : fmt::format("port-{}.pcap", port);
  return std::filesystem::path(outDir) / name;
}

SessionResult runSession(const Policy& policy, const SessionOptions& options) {
  return Session(policy, options).run();
}

}  // namespace ofswitch
