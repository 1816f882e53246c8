// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/live_switch.h"

#include <new>
#include <utility>

#include "switch/flow/refused.h"
#include "switch/live/flow_report.h"
#include "switch/live/flow_request.h"
#include "switch/live/live_switch_impl.h"
#include "switch/live/log_report.h"
#include "switch/live/switch_report.h"

namespace ofswitch {

LiveSwitch::LiveSwitch(SwitchConfig config, Now now)
    : impl_(std::make_unique<Impl>(std::move(config), std::move(now))) {}

LiveSwitch::~LiveSwitch() { stop(); }

void LiveSwitch::start(const std::function<bool()>& isCancelled) {
  impl_->start(isCancelled);
}
pb::StatsReply LiveSwitch::stop() { return impl_->stop(); }
const std::string& LiveSwitch::captureError() const {
  return impl_->captureError_;
}
bool LiveSwitch::running() const { return impl_->running_; }
bool LiveSwitch::isChangingFlows() const { return impl_->isProgramming_; }
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
    const TracedPacket packet = readTraceRequest(request, impl_->portNumbers());
    reply = Impl::onControl([&] { return impl_->trace(packet); });
  } catch (const std::bad_alloc&) {
    reply.set_refusal("there is not enough memory to trace a packet");
  } catch (const std::exception& error) {
    reply.set_refusal(error.what());
  }
  return reply;
}

void LiveSwitch::expireFlows() {
  Impl::onControl([this] { impl_->expire(); });
}

}  // namespace ofswitch
