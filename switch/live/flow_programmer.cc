// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_programmer.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace ofswitch {
namespace {

using Clock = std::chrono::steady_clock;

bool isIpv6(const TableUpdate& update) {
  return update.flowtype() == quil::pb::OPENFLOW_TYPE_IPV6;
}

std::string placeText(const TableUpdate& update) {
  return fmt::format("table {} {}", update.tableid(),
                     isIpv6(update) ? "IPv6" : "IPv4");
}

}  // namespace

FlowProgrammer::FlowProgrammer(FlowBook* book, ModuleDoor door)
    : book_(*book), door_(std::move(door)) {}

void FlowProgrammer::make(FlowBook::Plan plan, FlowBook::Time now,
                          const Progress& progress,
                          pb::FlowChangeReply* reply) {
  std::string failure;
  size_t sent = 0;
  for (const TableUpdate& update : plan.updates) {
    if (progress) {
      pb::FlowProgress step;
      step.set_step(fmt::format("{}: {} flows to add, {} to remove",
                                placeText(update), update.adds_size(),
                                update.deletes_size()));
      step.set_done(static_cast<uint32_t>(sent));
      step.set_total(static_cast<uint32_t>(plan.updates.size()));
      progress(step);
    }
    sent++;
    failure = send(update, false, reply);
    if (!failure.empty()) break;
  }
  if (failure.empty()) {
    reply->set_applied(true);
    reply->set_added(plan.added);
    reply->set_changed(plan.changed);
    reply->set_removed(plan.removed);
    reply->set_unchanged(plan.unchanged);
    book_.commit(std::move(plan), now);
  } else {
    reply->set_failure(fmt::format("{}: {}; {}",
                                   placeText(plan.updates[sent - 1]), failure,
                                   undo(plan, sent, reply)));
    book_.cancel(std::move(plan));
  }
  for (pb::Build& build : *reply->mutable_builds()) {
    build.set_flows(
        book_.numRules(static_cast<uint8_t>(build.table()), build.ipv6()));
  }
  door_.gracePeriod();
  book_.releaseRetired();
}

// An update whose build failed has changed the module's flows all the same, so
// that its own inverse is sent, too.
std::string FlowProgrammer::undo(const FlowBook::Plan& plan, size_t sent,
                                 pb::FlowChangeReply* reply) {
  std::vector<std::string> failed;
  std::set<Place> undone;
  for (size_t i = sent; i-- > 0;) {
    const TableUpdate& update = plan.updates[i];
    const Place place(update.tableid(), isIpv6(update));
    if (!undone.insert(place).second) continue;
    for (const TableUpdate& inverse : plan.inverse) {
      if (inverse.tableid() != place.first || isIpv6(inverse) != place.second) {
        continue;
      }
      if (const std::string error = send(inverse, true, reply);
          !error.empty()) {
        failed.push_back(placeText(inverse));
        stale_.insert(place);
      }
    }
  }
  if (failed.empty()) return "all flows are as they were";
  return fmt::format(
      "undoing it failed in {}, which is tried again every second",
      fmt::join(failed, ", "));
}

bool FlowProgrammer::mend() {
  const std::set<Place> stale = stale_;
  for (const auto& [table, ipv6] : stale) {
    TableUpdate update;
    update.set_tableid(table);
    update.set_flowtype(ipv6 ? quil::pb::OPENFLOW_TYPE_IPV6
                             : quil::pb::OPENFLOW_TYPE_IPV4);
    pb::FlowChangeReply unused;
    send(update, true, &unused);
  }
  return stale_.empty();
}

std::string FlowProgrammer::send(const TableUpdate& update, bool isInverse,
                                 pb::FlowChangeReply* reply) {
  const Clock::time_point start = Clock::now();
  std::string failure = door_.update(update);
  const auto time = std::chrono::nanoseconds(Clock::now() - start);

  const auto table = static_cast<uint8_t>(update.tableid());
  BuildHistory& history = history_[table][isIpv6(update)];
  history.builds++;
  history.failures += !failure.empty();
  history.last = time;
  history.longest = std::max(history.longest, time);
  history.total += time;
  if (failure.empty()) stale_.erase(Place(table, isIpv6(update)));

  pb::Build* build = reply->add_builds();
  build->set_table(table);
  build->set_ipv6(isIpv6(update));
  build->set_adds(static_cast<uint64_t>(update.adds_size()));
  build->set_deletes(static_cast<uint64_t>(update.deletes_size()));
  build->set_time_ns(static_cast<uint64_t>(time.count()));
  build->set_failure(failure);
  build->set_is_inverse(isInverse);
  reply->set_build_time_ns(reply->build_time_ns() + build->time_ns());
  return failure;
}

}  // namespace ofswitch
