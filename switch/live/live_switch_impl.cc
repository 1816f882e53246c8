// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/live_switch_impl.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <utility>

#include "platform/mio/mio.h"
#include "platform/quil_modules/counter_db.h"
#include "switch/live/flow_files.h"
#include "switch/live/flow_report.h"
#include "switch/live/switch_report.h"

namespace ofswitch {
namespace {

constexpr auto kTick = std::chrono::seconds(1);

SwitchPorts portNumbersOf(const SwitchConfig& config) {
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

void checkCancelled(const std::function<bool()>& isCancelled) {
  if (isCancelled && isCancelled()) throw StartCancelled();
}

// Sets a flag for its own lifetime, however that ends.
class Programming {
 public:
  explicit Programming(std::atomic<bool>* flag) : flag_(flag) { *flag_ = true; }
  ~Programming() { *flag_ = false; }
  Programming(const Programming&) = delete;
  Programming& operator=(const Programming&) = delete;

 private:
  std::atomic<bool>* flag_;
};

}  // namespace

LiveSwitch::Impl::Impl(SwitchConfig config, Now now)
    : config_(std::move(config)),
      now_(std::move(now)),
      counters_(config_.counters,
                [](uint32_t id) { return QuilModules::bessCounterDb.sum(id); }),
      book_(portNumbersOf(config_), &counters_) {}

SwitchPorts LiveSwitch::Impl::portNumbers() const {
  return portNumbersOf(config_);
}

void LiveSwitch::Impl::start(const std::function<bool()>& isCancelled) {
  const ConfiguredFlows files = readFlowFiles(config_);
  if (!files.refusals.empty()) {
    throw StartError(fmt::format("{}", fmt::join(files.refusals, "\n")));
  }
  checkCancelled(isCancelled);
  graph_ = std::make_unique<SwitchGraph>(config_);
  try {
    for (const auto& [facility, mask] : config_.logLevels) {
      Mio::setTraceLevels(facility, mask);
    }
    graph_->makeOutputs();
    loadFlows(files.flows, isCancelled);
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

pb::StatsReply LiveSwitch::Impl::stop() {
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
    captureError_ = graph_->stopCapture();
    final_ = stats(false);
    programmer_.reset();
    tracer_.reset();
  });
  graph_.reset();
  return final_;
}

pb::FlowChangeReply LiveSwitch::Impl::change(const pb::FlowChange& change,
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

void LiveSwitch::Impl::expire() {
  if (programmer_ == nullptr) return;
  const Clock::time_point now = now_();
  FlowBook::Plan plan = book_.planExpiry(now);
  if (!expiry_.isDue(now)) {
    book_.cancel(std::move(plan));
  } else if (!plan.steps.empty()) {
    const uint64_t idle = plan.expiredIdle;
    const uint64_t hard = plan.expiredHard;
    pb::FlowChangeReply reply;
    program(std::move(plan), {}, &reply);
    if (reply.applied()) {
      expiredIdle_ += idle;
      expiredHard_ += hard;
    } else {
      expiry_.failed(now);  // and what a failed build has kept stays
    }
  }
  programmer_->mend(now);
}

pb::TablesReply LiveSwitch::Impl::tables(bool all) {
  const SwitchCounts counts = readCounts(*graph_, book_);
  return tablesReply(counts, makeSwitchAccount(counts, &missing_), book_,
                     *programmer_, all);
}

pb::StatsReply LiveSwitch::Impl::stats(bool pause) {
  if (programmer_ == nullptr) return {};
  // Who has paused them meanwhile wants them to stay so.
  const bool resume =
      pause && std::ranges::any_of(Worker::List(), Worker::IsRunning);
  if (resume) Worker::PauseAll();
  const SwitchCounts counts = readCounts(*graph_, book_);
  if (resume) Worker::ResumeAll();
  return stats(counts, makeSwitchAccount(counts, &missing_));
}

pb::StatsReply LiveSwitch::Impl::stats(const SwitchCounts& counts,
                                       const SwitchAccount& account) {
  pb::StatsReply reply = statsReply(counts, account, *graph_);
  reply.set_time_ns(nsOf(std::chrono::system_clock::now().time_since_epoch()));
  reply.set_uptime_ns(nsOf(std::chrono::steady_clock::now() - started_));
  reply.set_flows(book_.numFlows());
  reply.set_flow_changes(changes_);
  reply.set_expired_idle(expiredIdle_);
  reply.set_expired_hard(expiredHard_);
  return reply;
}

std::optional<LiveSwitch::Reading> LiveSwitch::Impl::read(size_t mostFlows) {
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

pb::TraceReply LiveSwitch::Impl::trace(const TracedPacket& packet) {
  if (programmer_ == nullptr) throw BadRequest("the switch is not running");
  if (tracer_ == nullptr) {
    tracer_ = std::make_unique<PacketTracer>(portNumbers(), config_.counters,
                                             tracedFlows());
  }
  return tracer_->trace(packet);
}

void LiveSwitch::Impl::loadFlows(const std::vector<Flow>& flows,
                                 const std::function<bool()>& isCancelled) {
  programmer_ = std::make_unique<FlowProgrammer>(&book_, graph_->door());
  pb::FlowChangeReply reply;
  onControl([&] {
    FlowBook::Plan plan = book_.planAdd(flows, false);
    addRefusals(plan.refusals, reply.mutable_refusals());
    for (const Diagnostic& note : plan.notes) notes_.push_back(note.text());
    if (plan.refusals.empty()) {
      program(
          std::move(plan),
          [&](const pb::FlowProgress&) { checkCancelled(isCancelled); },
          &reply);
    }
  });
  if (reply.refusals_size() > 0) {
    const pb::Diagnostic& first = reply.refusals(0);
    throw StartError(
        Diagnostic{first.name(), static_cast<int>(first.line()), first.reason()}
            .text());
  }
  if (!reply.applied()) {
    std::string files;
    for (const ConfiguredFile& file : config_.flowFiles) {
      files += file.path + ": ";
    }
    throw StartError(files + "the flows cannot be loaded: " + reply.failure());
  }
}

void LiveSwitch::Impl::make(const pb::FlowChange& change,
                            const FlowRequest& request,
                            const Progress& progress,
                            pb::FlowChangeReply* reply) {
  if (programmer_ == nullptr) {
    reply->set_failure("the switch is not running");
    return;
  }
  FlowBook::Plan plan = planOf(change, request);
  addRefusals(plan.refusals, reply->mutable_refusals());
  addRefusals(plan.notes, reply->mutable_notes());
  if (!plan.refusals.empty()) return;
  program(std::move(plan), change.progress() ? progress : Progress(), reply);
  changes_ += reply->applied();
}

void LiveSwitch::Impl::program(FlowBook::Plan plan, const Progress& progress,
                               pb::FlowChangeReply* reply) {
  const Programming programming(&isProgramming_);
  programmer_->make(std::move(plan), now_(), progress, reply);
  if (reply->applied()) expiry_ = Retry();
}

FlowBook::Plan LiveSwitch::Impl::planOf(const pb::FlowChange& change,
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

TraceFlows LiveSwitch::Impl::tracedFlows() const {
  TraceFlows flows;
  flows.byCounter = [this](uint32_t id) -> std::optional<TraceFlows::Found> {
    const auto view = book_.findByPacketCounter(id);
    if (!view) return std::nullopt;
    return TraceFlows::Found{view->installed, flowEntry(*view, now_(), false)};
  };
  flows.visit = [this](uint8_t table, const TraceFlows::Visitor& visitor) {
    book_.visit(table, visitor);
  };
  return flows;
}

void LiveSwitch::Impl::tick() {
  std::unique_lock lock(tickMutex_);
  while (!tickWake_.wait_for(lock, kTick, [this] { return stopping_; })) {
    lock.unlock();
    onControl([this] { expire(); });
    lock.lock();
  }
}

}  // namespace ofswitch
