// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/module_harness.h"

#include <fmt/format.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <utility>

#include "control.h"
#include "eal.h"
#include "graph.h"
#include "inline_worker.h"
#include "modules/openflow/openflow.h"
#include "modules/sink.h"
#include "modules/source.h"
#include "platform/quil_modules/counter_db.h"
#include "plugin.h"
#include "tests/support/openflow_peer.h"
#include "tests/support/packet_factory.h"

namespace openflow_test {
namespace {

constexpr const char* kModuleClass = "OpenFlow";

using Captured = std::vector<Sink::Captured>;
using Flows = std::pair<uint32_t, Family>;  // table and family

void check(const CommandResponse& response, const std::string& what) {
  if (response.error().code() != 0) {
    throw std::runtime_error(fmt::format("{}: {} (code {})", what,
                                         response.error().errmsg(),
                                         response.error().code()));
  }
}

void onControl(const std::function<void()>& work) {
  bess::ControlThread::Instance().Run(work);
}

Family familyOf(quil::pb::OpenFlowType type) {
  return type == quil::pb::OPENFLOW_TYPE_IPV6 ? Family::kIpv6 : Family::kIpv4;
}

Module* create(const std::string& className, const std::string& name) {
  const bess::CreateResult made = bess::CreateModule(className, name);
  check(made.response, "making " + name);
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

class ModuleHarness::Impl {
 public:
  explicit Impl(HarnessOptions options);
  ~Impl();

  CommandResponse command(const std::string& name,
                          const google::protobuf::Message& arg);
  void noteFlows(const quil::pb::OpenFlowUpdateFlowsArg& arg);
  void forgetFlows() { flows_.clear(); }
  const std::map<Flows, std::set<uint32_t>>& flows() const { return flows_; }

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
    Captured captured;  // taken from the sink, not handed out yet
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
  Captured takeCaptured(int wid);
  void process(const std::vector<InputPacket>& packets, int wid);

  std::string name_, sinkName_, feedName_;
  Sink* sink_ = nullptr;
  std::mutex mutex_;  // over workers_, the factory and what is captured
  std::array<PerWorker, Worker::kMaxWorkers> workers_;
  std::map<Flows, std::set<uint32_t>> flows_;
};

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
  check(bess::ConnectModules(feedName_, 0, name_, 0), "feeding the module");
  for (const uint16_t gate : options.gates) {
    check(bess::ConnectModules(name_, gate, sinkName_, gate),
          fmt::format("connecting gate {}", gate));
  }
  if (!options.bindTables) return;
  for (uint32_t t = 0; t < kFlowTables; t++) {
    quil::pb::OpenFlowAclArg arg;
    arg.set_tableid(t);
    arg.set_aclid(options.firstSlot + 2 * t);
    arg.set_ipv6aclid(options.firstSlot + 2 * t + 1);
    check(command("setAclIds", arg), "binding a table");
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
    std::copy(std::begin(counters), std::end(counters), values);
  } else {
    quil::pb::OpenFlowGetStatsArg arg;
    arg.set_tableid(table);
    const CommandResponse response = command("getStats", arg);
    check(response, "reading statistics");
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

Captured ModuleHarness::Impl::takeCaptured(int wid) {
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

ModuleHarness::ModuleHarness(Options options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

ModuleHarness::~ModuleHarness() = default;

CommandResponse ModuleHarness::command(const std::string& name,
                                       const google::protobuf::Message& arg) {
  return impl_->command(name, arg);
}

CommandResponse ModuleHarness::updateFlows(
    const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  impl_->noteFlows(arg);
  return impl_->command("updateFlows", arg);
}

CommandResponse ModuleHarness::setAclIds(uint32_t tableId, uint32_t aclId,
                                         uint32_t ipv6AclId) {
  quil::pb::OpenFlowAclArg arg;
  arg.set_tableid(tableId);
  arg.set_aclid(aclId);
  arg.set_ipv6aclid(ipv6AclId);
  return impl_->command("setAclIds", arg);
}

CommandResponse ModuleHarness::getStats(
    uint32_t tableId, quil::pb::OpenFlowGetStatsRespArg* stats) {
  quil::pb::OpenFlowGetStatsArg arg;
  arg.set_tableid(tableId);
  CommandResponse response = impl_->command("getStats", arg);
  stats->Clear();
  response.data().UnpackTo(stats);
  return response;
}

void ModuleHarness::addFlows(uint32_t tableId, const std::vector<Flow>& flows,
                             Family family) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_tableid(tableId);
  arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(family));
  for (const Flow& flow : flows) *arg.add_adds() = flow.message();
  check(updateFlows(arg), "adding flows");
}

void ModuleHarness::deleteFlows(uint32_t tableId,
                                const std::vector<uint32_t>& flowIds,
                                Family family) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_tableid(tableId);
  arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(family));
  for (const uint32_t id : flowIds) arg.add_deletes()->set_flowid(id);
  check(updateFlows(arg), "deleting flows");
}

quil::pb::OpenFlowGetStatsRespArg ModuleHarness::stats(uint32_t tableId) {
  quil::pb::OpenFlowGetStatsRespArg stats;
  check(getStats(tableId, &stats), "reading statistics");
  return stats;
}

void ModuleHarness::clearFlows() {
  const auto flows = impl_->flows();
  for (const auto& [where, ids] : flows) {
    if (!ids.empty()) {
      deleteFlows(where.first, {ids.begin(), ids.end()}, where.second);
    }
  }
  impl_->forgetFlows();
}

RunResult ModuleHarness::run(const std::vector<InputPacket>& packets, int wid) {
  return impl_->run(packets, wid);
}

uint64_t ModuleHarness::flowCounter(uint32_t id, int wid) const {
  return impl_->flowCounter(id, wid);
}

TableCounters ModuleHarness::tableCounters(unsigned table) {
  return impl_->tableCounters(table);
}

size_t ModuleHarness::freePackets() const { return impl_->packets.free(); }

void ModuleHarness::drainPool(size_t left) { impl_->packets.drain(left); }

void ModuleHarness::refillPool() { impl_->packets.refill(); }

void ModuleHarness::beforeBatch(std::function<void()> hook) {
  impl_->beforeBatch = std::move(hook);
}

OpenFlow& ModuleHarness::module() {
  if (!impl_->options.pluginPath.empty()) {
    throw std::runtime_error("the module's class is inside the plug-in");
  }
  return static_cast<OpenFlow&>(*impl_->module);
}

Module& ModuleHarness::hostModule() { return *impl_->module; }

void ModuleHarness::onCommandThread(const std::function<void()>& work) {
  onControl(work);
}

void ModuleHarness::waitForReleases() {
  onControl([] { urcu_qsbr_barrier(); });
}

void ModuleHarness::startEal() {
  const std::string error = bess::InitEal();
  if (!error.empty()) throw std::runtime_error(error);
  bess::ControlThread::Instance();
}

}  // namespace openflow_test
