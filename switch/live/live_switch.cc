// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/live_switch.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "control.h"
#include "platform/mio/mio.h"
#include "platform/quil_modules/counter_db.h"
#include "switch/flow/flow_reader.h"
#include "switch/flow/refused.h"
#include "switch/live/flow_listing.h"
#include "switch/live/flow_report.h"
#include "switch/live/flow_request.h"
#include "switch/live/log_report.h"
#include "switch/live/switch_graph.h"
#include "switch/live/switch_report.h"
#include "switch/trace/packet_tracer.h"

namespace ofswitch {
namespace {

constexpr auto kTick = std::chrono::seconds(1);

SwitchPorts portNumbers(const SwitchConfig& config) {
  SwitchPorts ports;
  for (const PortConfig& port : config.ports) ports.push_back(port.number);
  return ports;
}

uint64_t nsOf(std::chrono::nanoseconds time) {
  return static_cast<uint64_t>(time.count());
}

void addRefusals(const std::vector<Diagnostic>& from,
                 google::protobuf::RepeatedPtrField<pb::Diagnostic>* to) {
  for (const Diagnostic& diagnostic : from) {
    pb::Diagnostic* one = to->Add();
    one->set_name(diagnostic.file);
    one->set_line(static_cast<uint32_t>(diagnostic.line));
    one->set_reason(diagnostic.reason);
  }
}

}  // namespace

// Everything but `running` is touched on the command thread alone.
class LiveSwitch::Impl {
 public:
  Impl(SwitchConfig config, Now now)
      : config_(std::move(config)),
        now_(std::move(now)),
        counters_(
            config_.counters,
            [](uint32_t id) { return QuilModules::bessCounterDb.sum(id); }),
        book_(portNumbers(config_), &counters_) {}

  // Runs `fn` on the command thread and hands its answer over.
  template <class Fn>
  static auto onControl(Fn fn) {
    using Answer = decltype(fn());
    if constexpr (std::is_void_v<Answer>) {
      bess::ControlThread::Instance().Run(fn);
    } else {
      Answer answer;
      bess::ControlThread::Instance().Run([&] { answer = fn(); });
      return answer;
    }
  }

  void start() {
    const std::vector<Flow> flows = readFlowFiles();
    graph_ = std::make_unique<SwitchGraph>(config_);
    try {
      for (const auto& [facility, mask] : config_.logLevels) {
        Mio::setTraceLevels(facility, mask);
      }
      graph_->makeOutputs();
      loadFlows(flows);
      graph_->startWorkers();
    } catch (...) {
      programmer_.reset();
      graph_.reset();
      throw;
    }
    started_ = std::chrono::steady_clock::now();
    std::ranges::copy(graph_->notes(), std::back_inserter(notes_));
    running_ = true;
    ticker_ = std::thread([this] { tick(); });
  }

  pb::StatsReply stop() {
    if (!running_.exchange(false)) return final_;
    {
      const std::lock_guard lock(tickMutex_);
      stopping_ = true;
    }
    tickWake_.notify_all();
    ticker_.join();
    // From here on requests find nothing to talk to.
    onControl([this] {
      Worker::PauseAll();
      final_ = stats(false);
      programmer_.reset();
      tracer_.reset();
    });
    graph_.reset();
    return final_;
  }

  pb::FlowChangeReply change(const pb::FlowChange& change,
                             const Progress& progress) {
    const auto start = std::chrono::steady_clock::now();
    pb::FlowChangeReply reply;
    const FlowRequest request = readFlowRequest(change);
    addRefusals(request.refusals, reply.mutable_refusals());
    if (request.ok()) {
      onControl([&] { make(change, request, progress, &reply); });
    }
    reply.set_total_time_ns(nsOf(std::chrono::steady_clock::now() - start));
    return reply;
  }

  void expire() {
    if (programmer_ == nullptr) return;
    const Clock::time_point now = now_();
    FlowBook::Plan plan = book_.planExpiry(now);
    if (!plan.steps.empty()) {
      const uint64_t idle = plan.expiredIdle;
      const uint64_t hard = plan.expiredHard;
      pb::FlowChangeReply reply;
      programmer_->make(std::move(plan), now, {}, &reply);
      if (reply.applied()) {
        expiredIdle_ += idle;
        expiredHard_ += hard;
      }
    }
    programmer_->mend();
  }

  pb::TablesReply tables(bool all) {
    const SwitchCounts counts = readCounts(*graph_, book_);
    return tablesReply(counts, makeSwitchAccount(counts, &missing_), book_,
                       *programmer_, all);
  }

  pb::StatsReply stats(bool pause) {
    if (programmer_ == nullptr) return {};
    // Who has paused them meanwhile wants them to stay so.
    const bool resume =
        pause && std::ranges::any_of(Worker::List(), Worker::IsRunning);
    if (resume) Worker::PauseAll();
    const SwitchCounts counts = readCounts(*graph_, book_);
    if (resume) Worker::ResumeAll();
    return stats(counts, makeSwitchAccount(counts, &missing_));
  }

  pb::StatsReply stats(const SwitchCounts& counts,
                       const SwitchAccount& account) {
    pb::StatsReply reply = statsReply(counts, account, *graph_);
    reply.set_time_ns(
        nsOf(std::chrono::system_clock::now().time_since_epoch()));
    reply.set_uptime_ns(nsOf(std::chrono::steady_clock::now() - started_));
    reply.set_flows(book_.numFlows());
    reply.set_flow_changes(changes_);
    reply.set_expired_idle(expiredIdle_);
    reply.set_expired_hard(expiredHard_);
    return reply;
  }

  std::optional<Reading> read(size_t mostFlows) {
    if (programmer_ == nullptr) return std::nullopt;
    const SwitchCounts counts = readCounts(*graph_, book_);
    const SwitchAccount account = makeSwitchAccount(counts, &missing_);
    Reading reading;
    reading.stats = stats(counts, account);
    reading.tables = tablesReply(counts, account, book_, *programmer_, true);
    reading.ports = portsReply(*graph_);
    for (const FlowBook::View& view : book_.select({}, false, mostFlows)) {
      reading.flows.push_back(
          {view.installed, view.counts.packets, view.counts.bytes});
    }
    return reading;
  }

  pb::TraceReply trace(const TracedPacket& packet) {
    if (programmer_ == nullptr) throw BadRequest("the switch is not running");
    if (tracer_ == nullptr) {
      tracer_ = std::make_unique<PacketTracer>(portNumbers(config_),
                                               config_.counters, tracedFlows());
    }
    return tracer_->trace(packet);
  }

  const SwitchConfig config_;
  const Now now_;
  std::atomic<bool> running_ = false;
  CounterPool counters_;
  FlowBook book_;
  std::unique_ptr<SwitchGraph> graph_;
  std::unique_ptr<FlowProgrammer> programmer_;  // while the switch runs
  std::vector<std::string> notes_;

 private:
  std::vector<Flow> readFlowFiles() const {
    const FlowReader reader({.allowTimeouts = true});
    std::vector<Flow> flows;
    std::string refusals;
    for (const std::string& path : config_.flowFiles) {
      FlowFile file = reader.read(path);
      std::ranges::move(file.flows, std::back_inserter(flows));
      for (const Diagnostic& refusal : file.refusals) {
        refusals += (refusals.empty() ? "" : "\n") + refusal.text();
      }
    }
    if (!refusals.empty()) throw StartError(refusals);
    return flows;
  }

  void loadFlows(const std::vector<Flow>& flows) {
    programmer_ = std::make_unique<FlowProgrammer>(&book_, graph_->door());
    pb::FlowChangeReply reply;
    onControl([&] {
      FlowBook::Plan plan = book_.planAdd(flows, false);
      addRefusals(plan.refusals, reply.mutable_refusals());
      for (const Diagnostic& note : plan.notes) notes_.push_back(note.text());
      if (plan.refusals.empty()) {
        programmer_->make(std::move(plan), now_(), {}, &reply);
      }
    });
    if (reply.refusals_size() > 0) {
      const pb::Diagnostic& first = reply.refusals(0);
      throw StartError(Diagnostic{first.name(), static_cast<int>(first.line()),
                                  first.reason()}
                           .text());
    }
    if (!reply.applied()) {
      throw StartError("the flows cannot be loaded: " + reply.failure());
    }
  }

  void make(const pb::FlowChange& change, const FlowRequest& request,
            const Progress& progress, pb::FlowChangeReply* reply) {
    if (programmer_ == nullptr) {
      reply->set_failure("the switch is not running");
      return;
    }
    FlowBook::Plan plan = planOf(change, request);
    addRefusals(plan.refusals, reply->mutable_refusals());
    addRefusals(plan.notes, reply->mutable_notes());
    if (!plan.refusals.empty()) return;
    programmer_->make(std::move(plan), now_(),
                      change.progress() ? progress : Progress(), reply);
    changes_ += reply->applied();
  }

  FlowBook::Plan planOf(const pb::FlowChange& change,
                        const FlowRequest& request) {
    switch (change.operation()) {
      case pb::FLOW_OPERATION_ADD:
        return book_.planAdd(request.flows, change.reset_counts());
      case pb::FLOW_OPERATION_REPLACE:
        return book_.planReplace(request.flows, change.reset_counts());
      default:
        return book_.planDelete(request.filters);
    }
  }

  TraceFlows tracedFlows() const {
    TraceFlows flows;
    flows.byCounter = [this](uint32_t id) -> std::optional<TraceFlows::Found> {
      const auto view = book_.findByPacketCounter(id);
      if (!view) return std::nullopt;
      return TraceFlows::Found{view->installed,
                               flowEntry(*view, now_(), false)};
    };
    flows.visit = [this](uint8_t table, const TraceFlows::Visitor& visitor) {
      book_.visit(table, visitor);
    };
    return flows;
  }

  void tick() {
    std::unique_lock lock(tickMutex_);
    while (!tickWake_.wait_for(lock, kTick, [this] { return stopping_; })) {
      lock.unlock();
      onControl([this] {
        expire();
        for (const SwitchGraph::SwitchPort& port : graph_->ports()) {
          port.port->Refresh();
        }
      });
      lock.lock();
    }
  }

  std::chrono::steady_clock::time_point started_;
  uint64_t changes_ = 0;
  uint64_t expiredIdle_ = 0;
  uint64_t expiredHard_ = 0;
  MissingPackets missing_;
  std::unique_ptr<PacketTracer> tracer_;  // from the first trace on
  pb::StatsReply final_;

  std::thread ticker_;
  std::mutex tickMutex_;
  std::condition_variable tickWake_;
  bool stopping_ = false;
};

LiveSwitch::LiveSwitch(SwitchConfig config, Now now)
    : impl_(std::make_unique<Impl>(std::move(config), std::move(now))) {}

LiveSwitch::~LiveSwitch() { stop(); }

void LiveSwitch::start() { impl_->start(); }
pb::StatsReply LiveSwitch::stop() { return impl_->stop(); }
bool LiveSwitch::running() const { return impl_->running_; }
const SwitchConfig& LiveSwitch::config() const { return impl_->config_; }

std::vector<std::string> LiveSwitch::startNotes() const {
  return impl_->notes_;
}

pb::FlowChangeReply LiveSwitch::changeFlows(const pb::FlowChange& change,
                                            const Progress& progress) {
  return impl_->change(change, progress);
}

FlowListing LiveSwitch::listFlows(const pb::FlowFilter& filter) const {
  ofswitch::FlowFilter wanted;
  try {
    wanted = readFlowFilter(filter);
  } catch (const Refused& refused) {
    throw BadRequest(refused.what());
  }
  return Impl::onControl([&] {
    const Clock::time_point now = impl_->now_();
    impl_->book_.noteUse(now);
    return FlowListing(impl_->book_.select(wanted, filter.with_built_in()), now,
                       filter.no_stats());
  });
}

void LiveSwitch::dumpFlows(const pb::FlowFilter& filter,
                           const FlowVisitor& visitor) const {
  FlowListing listing = listFlows(filter);
  while (const std::optional<pb::FlowEntry> entry = listing.next()) {
    if (!visitor(*entry)) return;
  }
}

std::optional<pb::FlowEntry> LiveSwitch::flowById(uint32_t flowId) const {
  const auto view =
      Impl::onControl([&] { return impl_->book_.findByFlowId(flowId); });
  if (!view) return std::nullopt;
  return flowEntry(*view, impl_->now_(), false);
}

std::optional<pb::FlowEntry> LiveSwitch::flowByCounter(
    uint32_t packetCounterId) const {
  const auto view = Impl::onControl(
      [&] { return impl_->book_.findByPacketCounter(packetCounterId); });
  if (!view) return std::nullopt;
  return flowEntry(*view, impl_->now_(), false);
}

std::vector<InstalledFlow> LiveSwitch::installedFlows() const {
  const std::vector<FlowBook::View> views =
      Impl::onControl([&] { return impl_->book_.select({}, true); });
  std::vector<InstalledFlow> flows;
  flows.reserve(views.size());
  for (const FlowBook::View& view : views) flows.push_back(*view.installed);
  return flows;
}

pb::TablesReply LiveSwitch::tables(const pb::TablesRequest& request) const {
  return Impl::onControl([&]() -> pb::TablesReply {
    if (impl_->programmer_ == nullptr) return {};
    return impl_->tables(request.all());
  });
}

pb::PortsReply LiveSwitch::ports() const {
  return Impl::onControl([&]() -> pb::PortsReply {
    if (impl_->programmer_ == nullptr) return {};
    return portsReply(*impl_->graph_);
  });
}

pb::StatsReply LiveSwitch::stats(const pb::StatsRequest& request) const {
  return Impl::onControl([&] { return impl_->stats(request.pause()); });
}

std::optional<LiveSwitch::Reading> LiveSwitch::read(size_t mostFlows) const {
  return Impl::onControl([&] { return impl_->read(mostFlows); });
}

LiveSwitch::LogReading LiveSwitch::readLog(const pb::LogRequest& request,
                                           size_t most) const {
  LogReading reading;
  reading.next = readLogEntries(request, most, &reading.entries);
  return reading;
}

pb::LogLevels LiveSwitch::setLogLevels(const pb::LogLevels& levels) {
  return applyLogLevels(levels);
}

pb::TraceReply LiveSwitch::trace(const pb::TraceRequest& request) {
  pb::TraceReply reply;
  try {
    const TracedPacket packet =
        readTraceRequest(request, portNumbers(impl_->config_));
    reply = Impl::onControl([&] { return impl_->trace(packet); });
  } catch (const std::exception& error) {
    reply.set_refusal(error.what());
  }
  return reply;
}

std::vector<uint16_t> LiveSwitch::connectedGates() const {
  std::vector<uint16_t> gates = portNumbers(impl_->config_);
  gates.insert(gates.begin(), 0);
  return gates;
}

void LiveSwitch::expireFlows() {
  Impl::onControl([this] { impl_->expire(); });
}

}  // namespace ofswitch
