// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/packet_tracer.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>

#include "switch/live/controller_frame.h"
#include "switch/live/drop_causes.h"
#include "switch/live/rule_end.h"
#include "switch/trace/key_fields.h"
#include "switch/trace/near_misses.h"
#include "switch/trace/packet_key.h"

namespace ofswitch {
namespace {

constexpr uint16_t kControllerGate = 0;

std::string wholeBuffer(const ProbeFrame& frame) {
  return frame.bytes + frame.behind;
}

void addField(const std::string& name, const std::string& value,
              pb::TraceReply::Field* field) {
  field->set_name(name);
  field->set_value(value);
}

const char* reasonText(uint64_t reason) {
  switch (static_cast<ControllerReason>(reason)) {
    case ControllerReason::kNoMatch:
      return "no_match";
    case ControllerReason::kInvalidTtl:
      return "invalid_ttl";
    case ControllerReason::kAction:
      break;
  }
  return "action";
}

// The frame that flows have sent to the controller, without what the module
// puts around it.
std::string unwrapped(const std::string& bytes) {
  const ControllerFrame frame =
      controllerFrame(reinterpret_cast<const uint8_t*>(bytes.data()),
                      bytes.size(), static_cast<uint32_t>(bytes.size()));
  return bytes.substr(frame.skip, frame.length);
}

// The frame behind the rewrites, if any copy of it was made.
std::optional<std::string> rewritten(const TableProbe::Session::Pass& pass) {
  if (pass.handedOn) return pass.handedOn->bytes;
  for (const auto& copy : pass.copies) {
    if (copy.gate != kControllerGate) return copy.frame.bytes;
  }
  if (pass.copies.empty()) return std::nullopt;
  return unwrapped(pass.copies.front().frame.bytes);
}

// Guards may live in another classifier than their flow.
bool foundByIpv6(const InstalledFlow& flow, uint32_t counter) {
  const InstalledRule* rule = &flow.rule;
  for (const InstalledRule& guard : flow.guards) {
    if (guard.packetCounterId == counter) rule = &guard;
  }
  return rule->family == quil::pb::OPENFLOW_TYPE_IPV6;
}

// Why the way of a packet ends at this rule without an output.
std::optional<SwitchDrop> dropAt(const InstalledFlow& flow, uint32_t counter,
                                 const SwitchPorts& ports) {
  if (flow.isTableMiss) return SwitchDrop::kTableMiss;
  if (flow.rule.packetCounterId != counter) return SwitchDrop::kTtlExpired;
  switch (endOf(flow.flow, prepareFlow(flow.flow, ports)).kind) {
    case RuleEnd::Kind::kDropped:
      return SwitchDrop::kDropAction;
    case RuleEnd::Kind::kTtlExpired:
      return SwitchDrop::kTtlExpired;
    case RuleEnd::Kind::kNoOutput:
      return SwitchDrop::kNoOutput;
    default:
      return std::nullopt;
  }
}

}  // namespace

class PacketTracer::Walk {
 public:
  Walk(const PacketTracer& tracer, TableProbe* probe,
       const TracedPacket& packet)
      : tracer_(tracer),
        session_(probe),
        frame_{packet.frame},
        inPort_(packet.inPort) {
    session_.capture(inPort_);
    reply_.set_frame(packet.frame);
    reply_.set_in_port(inPort_);
  }

  pb::TraceReply run(uint8_t table) {
    std::optional<uint8_t> next = table;
    while (next) next = step(*next);
    if (!isConnected(inPort_)) {
      reply_.mutable_steps(0)->add_notes(
          fmt::format("the switch has no port {}", inPort_));
    }
    return std::move(reply_);
  }

 private:
  // Answers the table that comes next.
  std::optional<uint8_t> step(uint8_t table) {
    pb::TraceReply::Step* step = reply_.add_steps();
    step->set_table(table);
    const Match key = packetKey(wholeBuffer(frame_), inPort_);
    for (const NamedField& field : fieldsOf(key)) {
      addField(field.name, field.value, step->add_key());
    }
    Pass pass = session_.run(table, frame_, inPort_);
    if (!pass.packetCounter) {
      // A table without any flow is one that no packet is ever sent to.
      drop(pass.lookedUp ? SwitchDrop::kTableMiss : SwitchDrop::kLookupFailed,
           step);
      if (!pass.lookedUp) step->add_notes("the table has no flows");
      addNearMisses(key, step);
      return std::nullopt;
    }
    const auto winner = tracer_.flows_.byCounter(*pass.packetCounter);
    if (!winner) {
      throw ProbeError(fmt::format(
          "table {} matches by a flow that is gone, because a classifier could "
          "not be built; it is tried again within a minute",
          table));
    }
    const InstalledFlow& installed = *winner->installed;
    const auto cause = dropAt(installed, *pass.packetCounter, tracer_.ports_);
    if (cause) drop(*cause, step);
    if (installed.isTableMiss) {
      addNearMisses(key, step);
      return std::nullopt;
    }
    *step->mutable_flow() = winner->entry;
    step->set_ipv6_classifier(foundByIpv6(installed, *pass.packetCounter));
    if (cause) return std::nullopt;
    if (captureOutputs(installed.flow)) {
      pass = session_.run(table, frame_, inPort_);
    }
    addRewrites(pass, step);
    addOutputs(pass, installed.flow, step);
    return handOn(&pass, installed.flow, step);
  }

  using Pass = TableProbe::Session::Pass;

  static void drop(SwitchDrop cause, pb::TraceReply::Step* step) {
    pb::DropCause* drop = step->mutable_drop();
    drop->set_name(info(cause).name);
    drop->set_sentence(info(cause).sentence);
    drop->set_packets(1);
    drop->set_table(step->table());
  }

  // Answers whether one of its ports was not captured before.
  bool captureOutputs(const Flow& flow) {
    bool more = false;
    for (const Action& action : flow.actions) {
      if (action.kind != ActionKind::kOutput) continue;
      more |= session_.capture(static_cast<uint16_t>(action.value));
    }
    return more;
  }

  void addRewrites(const Pass& pass, pb::TraceReply::Step* step) const {
    const auto after = rewritten(pass);
    if (!after) return;
    for (const FieldDifference& one : rewrittenFields(frame_.bytes, *after)) {
      pb::TraceReply::Rewrite* rewrite = step->add_rewrites();
      rewrite->set_field(one.name);
      rewrite->set_before(one.found);
      rewrite->set_after(one.wanted);
    }
  }

  void addOutputs(const Pass& pass, const Flow& flow,
                  pb::TraceReply::Step* step) {
    for (const auto& copy : pass.copies) {
      const bool connected = isConnected(copy.gate);
      step->add_outputs(outputText(copy.gate, connected, flow));
      outputBytes_ += copy.frame.bytes.size();
      if (outputBytes_ > kMaxOutputBytes) {
        reply_.set_outputs_left_out(reply_.outputs_left_out() + 1);
        continue;
      }
      pb::TraceReply::Output* output = reply_.add_outputs();
      output->set_port(copy.gate);
      output->set_frame(copy.frame.bytes);
      output->set_connected(connected);
    }
    for (const Action& action : flow.actions) {
      if (wouldReturn(action)) {
        step->add_notes(fmt::format(
            "not to port {}: the packet came in there, and only the action "
            "in_port sends back",
            inPort_));
        break;
      }
    }
  }

  bool isConnected(uint16_t gate) const {
    return gate == kControllerGate ||
           std::ranges::find(tracer_.ports_, gate) != tracer_.ports_.end();
  }

  std::string outputText(uint16_t gate, bool connected,
                         const Flow& flow) const {
    if (gate == kControllerGate) {
      const auto to = std::ranges::find(flow.actions, ActionKind::kController,
                                        &Action::kind);
      return fmt::format("controller, reason {}",
                         reasonText(to == flow.actions.end() ? 0 : to->value));
    }
    return fmt::format("port {}{}{}", gate,
                       gate == inPort_ ? ", where it came in" : "",
                       connected ? "" : ", which the switch does not have");
  }

  bool wouldReturn(const Action& action) const {
    return action.kind == ActionKind::kOutput && action.value == inPort_;
  }

  std::optional<uint8_t> handOn(Pass* pass, const Flow& flow,
                                pb::TraceReply::Step* step) {
    const auto to =
        std::ranges::find(flow.actions, ActionKind::kGoto, &Action::kind);
    if (!pass->handedOn || to == flow.actions.end()) return std::nullopt;
    step->set_goto_table(static_cast<uint32_t>(to->value));
    frame_ = std::move(*pass->handedOn);
    return static_cast<uint8_t>(to->value);
  }

  void addNearMisses(const Match& key, pb::TraceReply::Step* step) const {
    NearMisses misses(key);
    tracer_.flows_.visit(static_cast<uint8_t>(step->table()),
                         [&](const TraceFlows::Installed& flow,
                             uint64_t order) { misses.consider(flow, order); });
    for (const NearMisses::Miss& miss : misses.nearest()) {
      const auto found =
          tracer_.flows_.byCounter(miss.flow->rule.packetCounterId);
      if (!found) continue;
      pb::TraceReply::NearMiss* near = step->add_near();
      *near->mutable_flow() = found->entry;
      for (const FieldDifference& one :
           differences(miss.flow->flow.match, key)) {
        addField(one.name, one.wanted, near->add_wanted());
        addField(one.name, one.found, near->add_found());
      }
    }
  }

  const PacketTracer& tracer_;
  TableProbe::Session session_;
  ProbeFrame frame_;
  uint16_t inPort_;
  size_t outputBytes_ = 0;
  pb::TraceReply reply_;
};

PacketTracer::PacketTracer(SwitchPorts ports, uint32_t counters,
                           TraceFlows flows)
    : ports_(std::move(ports)), counters_(counters), flows_(std::move(flows)) {}

pb::TraceReply PacketTracer::trace(const TracedPacket& packet) {
  if (probe_ == nullptr) {
    std::vector<uint16_t> gates = ports_;
    gates.push_back(kControllerGate);
    probe_ = std::make_unique<TableProbe>(gates, counters_);
  }
  return Walk(*this, probe_.get(), packet).run(packet.table);
}

}  // namespace ofswitch
