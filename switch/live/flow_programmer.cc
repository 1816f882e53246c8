// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_programmer.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <set>
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

bool isEmpty(const TableUpdate& update) {
  return update.adds().empty() && update.deletes().empty();
}

// What both updates of a table do, one after the other.
TableUpdate inOne(const TableUpdate& first, const TableUpdate& second) {
  std::map<uint32_t, const quil::pb::OpenFlowAddFlow*> adds;
  std::set<uint32_t> deletes;
  for (const TableUpdate* update : {&first, &second}) {
    for (const auto& add : update->adds()) {
      adds[add.flowid()] = &add;
      deletes.erase(add.flowid());
    }
    for (const auto& flow : update->deletes()) {
      adds.erase(flow.flowid());
      deletes.insert(flow.flowid());
    }
  }
  TableUpdate both;
  both.set_tableid(second.tableid());
  both.set_flowtype(second.flowtype());
  for (const auto& [id, add] : adds) *both.add_adds() = *add;
  for (const uint32_t id : deletes) both.add_deletes()->set_flowid(id);
  return both;
}

}  // namespace

FlowProgrammer::FlowProgrammer(FlowBook* book, ModuleDoor door)
    : book_(*book), door_(std::move(door)) {}

void FlowProgrammer::make(FlowBook::Plan plan, FlowBook::Time now,
                          const Progress& progress,
                          pb::FlowChangeReply* reply) {
  std::string failure;
  size_t sent = 0;    // the last one may have failed
  size_t stored = 0;  // of those, in the module's flows
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
    const UpdateAnswer answer = send(update, Sender::kOperator, reply);
    stored += answer.isStored;
    failure = answer.failure;
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
                                   undo(plan, stored, now, reply)));
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
std::string FlowProgrammer::undo(const FlowBook::Plan& plan, size_t stored,
                                 FlowBook::Time now,
                                 pb::FlowChangeReply* reply) {
  std::vector<std::string> failed;
  std::set<Place> undone;
  for (size_t i = stored; i-- > 0;) {
    const TableUpdate& update = plan.updates[i];
    const Place place(update.tableid(), isIpv6(update));
    if (!undone.insert(place).second) continue;
    for (const TableUpdate& inverse : plan.inverse) {
      if (inverse.tableid() != place.first || isIpv6(inverse) != place.second) {
        continue;
      }
      const UpdateAnswer answer = send(inverse, Sender::kUndo, reply);
      if (answer.failure.empty()) continue;
      failed.push_back(placeText(inverse));
      Stale& stale = stale_[place];
      if (!answer.isStored) stale.missing = inOne(stale.missing, inverse);
      stale.retry = Retry();
      stale.retry.failed(now);
    }
  }
  if (failed.empty()) return "all flows are as they were";
  return fmt::format(
      "undoing it failed in {}, which is tried again within a minute",
      fmt::join(failed, ", "));
}

bool FlowProgrammer::mend(FlowBook::Time now) {
  std::vector<Place> due;
  for (const auto& [place, stale] : stale_) {
    if (stale.retry.isDue(now)) due.push_back(place);
  }
  for (const Place& place : due) {
    TableUpdate update;
    update.set_tableid(place.first);
    update.set_flowtype(place.second ? quil::pb::OPENFLOW_TYPE_IPV6
                                     : quil::pb::OPENFLOW_TYPE_IPV4);
    pb::FlowChangeReply unused;
    const UpdateAnswer answer = send(update, Sender::kUndo, &unused);
    if (answer.failure.empty() || !answer.isStored) continue;
    stale_[place].retry.failed(now);
  }
  return stale_.empty();
}

// With what the table's flows still lack of an earlier inverse, for the plan
// takes that for done.
UpdateAnswer FlowProgrammer::send(const TableUpdate& update, Sender sender,
                                  pb::FlowChangeReply* reply) {
  const auto table = static_cast<uint8_t>(update.tableid());
  const auto stale = stale_.find(Place(table, isIpv6(update)));
  const bool isLate = stale != stale_.end() && !isEmpty(stale->second.missing);
  const TableUpdate late =
      isLate ? inOne(stale->second.missing, update) : TableUpdate();
  const TableUpdate& whole = isLate ? late : update;

  const Clock::time_point start = Clock::now();
  UpdateAnswer answer = door_.update(whole, sender);
  const auto time = std::chrono::nanoseconds(Clock::now() - start);
  if (!answer.isStored) return answer;  // nothing was built
  const std::string& failure = answer.failure;
  if (stale != stale_.end()) {
    stale->second.missing.Clear();
    if (failure.empty()) stale_.erase(stale);
  }

  BuildHistory& history = history_[table][isIpv6(update)];
  history.builds++;
  history.failures += !failure.empty();
  history.last = time;
  history.longest = std::max(history.longest, time);
  history.total += time;

  pb::Build* build = reply->add_builds();
  build->set_table(table);
  build->set_ipv6(isIpv6(update));
  build->set_adds(static_cast<uint64_t>(whole.adds_size()));
  build->set_deletes(static_cast<uint64_t>(whole.deletes_size()));
  build->set_time_ns(static_cast<uint64_t>(time.count()));
  build->set_failure(failure);
  build->set_is_inverse(sender == Sender::kUndo);
  reply->set_build_time_ns(reply->build_time_ns() + build->time_ns());
  return answer;
}

}  // namespace ofswitch
