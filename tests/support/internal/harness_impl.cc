// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/internal/harness_impl.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

#include "control.h"
#include "graph.h"
#include "inline_worker.h"
#include "modules/openflow/openflow.h"
#include "modules/source.h"
#include "platform/quil_modules/counter_db.h"
#include "plugin.h"
#include "tests/support/openflow_peer.h"

namespace openflow_test {
namespace {

constexpr const char* kModuleClass = "OpenFlow";

void onControl(const std::function<void()>& work) {
  bess::ControlThread::Instance().Run(work);
}

Family familyOf(quil::pb::OpenFlowType type) {
  return type == quil::pb::OPENFLOW_TYPE_IPV6 ? Family::kIpv6 : Family::kIpv4;
}

Module* create(const std::string& className, const std::string& name) {
  const bess::CreateResult made = bess::CreateModule(className, name);
  requireSuccess(made.response, "making " + name);
  return made.module;
}

void loadPlugin(const std::string& path) {
  bool loaded = false;
  onControl([&] {
    loaded = ModuleBuilder::all_module_builders().count(kModuleClass) != 0;
  });
  if (loaded) return;
  const std::string error = bess::LoadPlugin(path);
  if (!error.empty()) throw std::runtime_error(error);
}

std::vector<uint64_t> readFlowCounters(int wid) {
  std::vector<uint64_t> values;
  if (const auto* counters = QuilModules::bessCounterDb[wid]) {
    for (uint32_t id = 0; id < counters->size(); id++) {
      values.push_back(counters->read(id));
    }
  }
  return values;
}

}  // namespace

void requireSuccess(const CommandResponse& response, const std::string& what) {
  if (response.error().code() != 0) {
    throw std::runtime_error(fmt::format("{}: {} (code {})", what,
                                         response.error().errmsg(),
                                         response.error().code()));
  }
}

ModuleHarness::Impl::Impl(HarnessOptions wanted)
    : packets((startEal(), wanted.poolPackets)), options(std::move(wanted)) {
  static std::atomic<unsigned> number = 0;
  const unsigned mine = number++;
  name_ = fmt::format("bench{}", mine);
  sinkName_ = name_ + "-sink";
  feedName_ = name_ + "-feed";
  try {
    build();
  } catch (...) {
    destroy();
    throw;
  }
}

ModuleHarness::Impl::~Impl() {
  destroy();
  for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
    if (!workers_[wid].ownsCounters) continue;
    onControl([&] { QuilModules::bessCounterDb.destroy(wid); });
  }
  waitForReleases();
}

void ModuleHarness::Impl::build() {
  if (!options.pluginPath.empty()) loadPlugin(options.pluginPath);
  module = create(kModuleClass, name_);
  sink_ = static_cast<Sink*>(create("Sink", sinkName_));
  // An input gate exists as long as something leads to it.
  create("Source", feedName_);
  requireSuccess(bess::ConnectModules(feedName_, 0, name_, 0),
                 "feeding the module");
  for (const uint16_t gate : options.gates) {
    requireSuccess(bess::ConnectModules(name_, gate, sinkName_, gate),
                   fmt::format("connecting gate {}", gate));
  }
  if (!options.bindTables) return;
  for (uint32_t t = 0; t < kFlowTables; t++) {
    quil::pb::OpenFlowAclArg arg;
    arg.set_tableid(t);
    arg.set_aclid(options.firstSlot + 2 * t);
    arg.set_ipv6aclid(options.firstSlot + 2 * t + 1);
    requireSuccess(command("setAclIds", arg), "binding a table");
  }
}

void ModuleHarness::Impl::destroy() {
  for (PerWorker& worker : workers_) worker.task.reset();
  for (const std::string& name : {feedName_, name_, sinkName_}) {
    if (bess::FindModule(name) != nullptr) bess::DestroyModule(name);
  }
}

CommandResponse ModuleHarness::Impl::command(
    const std::string& name, const google::protobuf::Message& arg) {
  google::protobuf::Any any;
  any.PackFrom(arg);
  return bess::RunModuleCommand(name_, name, any);
}

void ModuleHarness::Impl::noteFlows(
    const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  std::set<uint32_t>& ids = flows_[{arg.tableid(), familyOf(arg.flowtype())}];
  for (const auto& add : arg.adds()) ids.insert(add.flowid());
  for (const auto& del : arg.deletes()) ids.erase(del.flowid());
}

ModuleHarness::Impl::PerWorker& ModuleHarness::Impl::worker(int wid) {
  const std::lock_guard<std::mutex> lock(mutex_);
  PerWorker& worker = workers_.at(static_cast<size_t>(wid));
  if (!worker.task) {
    onControl([&] {
      worker.task = std::make_unique<Task>(module, nullptr);
      worker.ownsCounters =
          QuilModules::bessCounterDb.create(wid, options.numFlowCounters);
    });
    worker.countersAtStart = readFlowCounters(wid);
  }
  return worker;
}

TableCounters ModuleHarness::Impl::tableCounters(unsigned table) {
  uint64_t values[12];
  if (options.pluginPath.empty()) {
    const auto& counters =
        OpenFlowPeer::table(static_cast<OpenFlow&>(*module), table).counters;
    std::ranges::transform(counters, values, readEvents);
  } else {
    quil::pb::OpenFlowGetStatsArg arg;
    arg.set_tableid(table);
    const CommandResponse response = command("getStats", arg);
    requireSuccess(response, "reading statistics");
    quil::pb::OpenFlowGetStatsRespArg s;
    response.data().UnpackTo(&s);
    const uint64_t fromReply[] = {
        s.updatefailures(),   s.aclcreatefailures(), s.acladdrulesfailures(),
        s.aclbuildfailures(), s.classifyerrors(),    s.noaclctx(),
        s.noclassifier(),     s.batchdrops(),        s.tablemisses(),
        s.sparecounter(),     s.dropactions(),       s.nooutputdrops()};
    std::copy(std::begin(fromReply), std::end(fromReply), values);
  }
  return {values[0], values[1], values[2], values[3], values[4],  values[5],
          values[6], values[7], values[8], values[9], values[10], values[11]};
}

ModuleHarness::Impl::Totals ModuleHarness::Impl::totals(int wid) {
  Totals totals;
  totals.drops = module->deadends()[static_cast<size_t>(wid)];
  for (unsigned t = 0; t < kFlowTables; t++) {
    totals.tables[t] = tableCounters(t);
  }
  totals.flowCounters = readFlowCounters(wid);
  totals.packets = packets.free() + packets.drained();
  return totals;
}

void ModuleHarness::Impl::process(const std::vector<InputPacket>& inputs,
                                  int wid) {
  bess::InlineWorker inlineWorker(wid);
  bess::PacketBatch batch;
  batch.clear();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const InputPacket& input : inputs) batch.add(packets.make(input));
  }
  if (beforeBatch) beforeBatch();
  inlineWorker.Run(workers_[static_cast<size_t>(wid)].task.get(),
                   module->igates()[0], &batch);
}

std::vector<Sink::Captured> ModuleHarness::Impl::takeCaptured(int wid) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (Sink::Captured& captured : sink_->Take()) {
    workers_.at(static_cast<size_t>(captured.wid))
        .captured.push_back(std::move(captured));
  }
  return std::exchange(workers_[static_cast<size_t>(wid)].captured, {});
}

RunResult ModuleHarness::Impl::run(const std::vector<InputPacket>& inputs,
                                   int wid) {
  if (inputs.size() > kMaxBatch) {
    throw std::invalid_argument("a batch holds at most 32 packets");
  }
  worker(wid);
  const Totals before = totals(wid);
  process(inputs, wid);
  const Totals after = totals(wid);

  RunResult result;
  for (const Sink::Captured& captured : takeCaptured(wid)) {
    result.gates[captured.igate].push_back(toOutputPacket(captured));
  }
  result.drops = after.drops - before.drops;
  for (unsigned t = 0; t < kFlowTables; t++) {
    const TableCounters growth = after.tables[t] - before.tables[t];
    if (growth != TableCounters{}) result.tables[t] = growth;
  }
  for (uint32_t id = 0; id < after.flowCounters.size(); id++) {
    const uint64_t growth = after.flowCounters[id] - before.flowCounters[id];
    if (growth != 0) result.flowCounters[id] = growth;
  }
  result.leakedPackets = static_cast<int64_t>(before.packets) -
                         static_cast<int64_t>(after.packets);
  return result;
}

uint64_t ModuleHarness::Impl::flowCounter(uint32_t id, int wid) const {
  const auto* counters = QuilModules::bessCounterDb[wid];
  const auto& start = workers_.at(static_cast<size_t>(wid)).countersAtStart;
  if (counters == nullptr) return 0;
  return counters->read(id) - (id < start.size() ? start[id] : 0);
}

}  // namespace openflow_test
