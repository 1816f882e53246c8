// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/reference.h"

#include <utility>

#include "tests/support/reference_rewrite.h"

namespace openflow_test {
namespace {

constexpr int kFailed = -1;
constexpr uint32_t kMaxRulePriority = (1u << 29) - 1;
constexpr int kMaxGates = 64;
constexpr size_t kControllerHeader = 22;
constexpr size_t kControllerTrailer = 4;
constexpr uint32_t kTrapBit = 0x20000;

uint16_t inPortGate(const ReferencePacket& packet) {
  const bool valid = packet.meta.flags & MetadataBlock::kInPortValid;
  return valid ? static_cast<uint16_t>(packet.meta.inPort) : 0;
}

uint64_t metadataOf(const ReferencePacket& packet) {
  const bool valid = packet.meta.flags & MetadataBlock::kMetadataValid;
  return valid ? packet.meta.metadata : 0;
}

bool hasOutput(const quil::pb::OfActionFields& has) {
  return has.setoutputall() || has.setoutputflood() || has.setoutputport() ||
         has.setoutputinport() || has.setoutputcontroller() ||
         has.setoutputdrop() || has.gototbl();
}

}  // namespace

ReferenceModule::ReferenceModule(const HarnessOptions& options)
    : gates_(options.gates.begin(), options.gates.end()),
      numFlowCounters_(options.numFlowCounters) {
  if (!options.bindTables) return;
  for (uint32_t t = 0; t < kFlowTables; t++) {
    setAclIds(t, options.firstSlot + 2 * t, options.firstSlot + 2 * t + 1);
  }
}

void ReferenceModule::setAclIds(uint32_t tableId, uint32_t aclId,
                                uint32_t ipv6AclId) {
  tables_.at(tableId).bound = true;
  tables_.at(tableId).slots = {aclId, ipv6AclId};
}

int ReferenceModule::updateFlows(const quil::pb::OpenFlowUpdateFlowsArg& arg) {
  if (arg.tableid() >= kFlowTables) return kFailed;
  for (const auto& add : arg.adds()) {
    const auto& has = add.action().fields();
    const bool listed =
        has.setoutputall() || has.setoutputflood() || has.setoutputport();
    if (listed && add.action().values().ogate_size() > kMaxGates) {
      return kFailed;
    }
  }
  const bool ipv6 = arg.flowtype() == quil::pb::OPENFLOW_TYPE_IPV6;
  Table& table = tables_[arg.tableid()];
  Flows& flows = table.flows[ipv6];
  for (const auto& add : arg.adds()) flows[add.flowid()] = add;
  for (const auto& del : arg.deletes()) flows.erase(del.flowid());

  if (!table.bound) {
    table.counters.updateFailures++;
    return kFailed;
  }
  auto rules = std::make_shared<Rules>();
  for (const auto& [id, flow] : flows) {
    if (flow.priority() > kMaxRulePriority) {
      table.counters.aclAddRulesFailures++;
      table.counters.updateFailures++;
      return kFailed;
    }
    rules->push_back({referenceRule(flow.match(), ipv6), flow});
  }
  slots_[table.slots[ipv6]] = rules->empty() ? nullptr : rules;
  return 0;
}

uint32_t ReferenceModule::numFlows(uint32_t tableId, Family family) const {
  const Table& table = tables_.at(tableId);
  return static_cast<uint32_t>(table.flows[static_cast<size_t>(family)].size());
}

TableCounters ReferenceModule::tableCounters(uint32_t tableId) const {
  return tables_.at(tableId).counters;
}

RunResult ReferenceModule::run(const std::vector<InputPacket>& packets) {
  RunResult result;
  readGarbage_ = false;
  std::array<TableCounters, kFlowTables> before;
  for (unsigned t = 0; t < kFlowTables; t++) before[t] = tables_[t].counters;

  for (const InputPacket& packet : packets) {
    const bool valid = packet.meta.flags & MetadataBlock::kStartTableValid;
    const unsigned start = valid ? packet.meta.startTable : 0;
    if (start < kFlowTables) {
      waiting_[start].emplace_back(packet);
    } else {
      result.drops++;
    }
  }
  for (unsigned t = 0; t < kFlowTables; t++) {
    if (!waiting_[t].empty()) pass(t, &result);
    waiting_[t].clear();
  }

  for (unsigned t = 0; t < kFlowTables; t++) {
    const TableCounters growth = tables_[t].counters - before[t];
    if (growth != TableCounters{}) result.tables[t] = growth;
  }
  return result;
}

void ReferenceModule::pass(unsigned tableId, RunResult* result) {
  Table& table = tables_[tableId];
  if (!table.bound) {
    table.counters.noAclCtx++;
    table.counters.batchDrops++;
    return;
  }
  if (!slots_[table.slots[0]] && !slots_[table.slots[1]]) {
    table.counters.noClassifier++;
    table.counters.batchDrops++;
    return;
  }
  for (ReferencePacket& packet : waiting_[tableId]) {
    result->drops++;
    const quil::pb::OpenFlowAddFlow* flow = choose(tableId, packet);
    if (flow == nullptr) {
      table.counters.tableMisses++;
      noteGarbage(packet);
      continue;
    }
    count(*flow, packet.length(), result);
    const quil::pb::OfAction& action = flow->action();
    referenceRewrite(action, &packet);
    output(action, packet, result);
    const uint32_t next = action.values().nexttbl() & 0xff;
    if (action.fields().gototbl() && next > tableId && next < kFlowTables) {
      ReferencePacket copy = packet.copy();
      copy.meta.withMetadata(metadataOf(packet));
      const bool valid = packet.meta.flags & MetadataBlock::kInPortValid;
      copy.meta.withInPort(valid ? packet.meta.inPort : 0);
      waiting_[next].push_back(std::move(copy));
    }
    if (!hasOutput(action.fields())) {
      table.counters.noOutputDrops++;
    } else if (action.fields().setoutputdrop()) {
      table.counters.dropActions++;
    }
    noteGarbage(packet);
  }
}

const quil::pb::OpenFlowAddFlow* ReferenceModule::choose(
    unsigned tableId, const ReferencePacket& packet) const {
  const ReferenceKeys keys = referenceKeys(packet);
  const quil::pb::OpenFlowAddFlow* best = nullptr;
  // IPv4 first: a later flow of equal priority, one of IPv6, takes its place.
  for (const uint32_t slot : tables_[tableId].slots) {
    const auto published = slots_.find(slot);
    if (published == slots_.end() || !published->second) continue;
    for (const Rule& rule : *published->second) {
      if (rule.flow.priority() != 0 && referenceMatches(rule.fields, keys) &&
          (best == nullptr || rule.flow.priority() >= best->priority())) {
        best = &rule.flow;
      }
    }
  }
  return best;
}

void ReferenceModule::count(const quil::pb::OpenFlowAddFlow& flow,
                            size_t length, RunResult* result) const {
  if (flow.packetcounterid() < numFlowCounters_) {
    result->flowCounters[flow.packetcounterid()] += 1;
  }
  if (flow.bytecounterid() < numFlowCounters_ && length != 0) {
    result->flowCounters[flow.bytecounterid()] += length;
  }
}

void ReferenceModule::output(const quil::pb::OfAction& action,
                             const ReferencePacket& packet, RunResult* result) {
  const quil::pb::OfActionFields& has = action.fields();
  const quil::pb::OfActionValues& v = action.values();
  const uint16_t inGate = inPortGate(packet);
  const bool skipInPort = has.setoutputall() || has.setoutputflood();
  if (skipInPort || has.setoutputport()) {
    for (const uint32_t gate : v.ogate()) {
      if (!skipInPort || (gate & 0xffff) != inGate) {
        emit(packet.copy(), gate & 0xffff, result);
      }
    }
  }
  if (has.setoutputinport()) emit(packet.copy(), inGate, result);
  if (has.setoutputcontroller()) outputController(v, packet, inGate, result);
}

void ReferenceModule::outputController(const quil::pb::OfActionValues& values,
                                       const ReferencePacket& packet,
                                       uint16_t inGate, RunResult* result) {
  const bool trap = values.outputcontrollertrap();
  ReferencePacket copy = packet.copy();
  if (trap) copy.meta.withMetadata(metadataOf(packet));

  if (copy.headroom() >= kControllerHeader) {
    Bytes header(kControllerHeader);
    for (size_t i = 0; i < 12; i++) header[i] = copy.get(i);
    header[12] = trap ? 0x81 : 0x00;
    header[13] = 0x31;
    header[17] = static_cast<uint8_t>(values.outputcontrollerreason());
    copy.prepend(header.size());
    for (size_t i = 0; i < header.size(); i++) copy.set(i, header[i]);
  }
  if (trap) copy.meta.withPuntWord(kTrapBit);  // a copy starts without flags
  if (copy.lastTailroom() >= kControllerTrailer)
    copy.append(kControllerTrailer);
  emit(std::move(copy), trap ? 0 : inGate, result);
}

void ReferenceModule::emit(ReferencePacket copy, uint32_t gate,
                           RunResult* result) {
  noteGarbage(copy);
  if (gates_.count(static_cast<uint16_t>(gate)) == 0) {
    result->drops++;
    return;
  }
  result->gates[static_cast<uint16_t>(gate)].push_back(
      {copy.bytes(), copy.meta, copy.segments()});
}

void ReferenceModule::noteGarbage(const ReferencePacket& packet) {
  readGarbage_ = readGarbage_ || packet.readGarbage();
}

}  // namespace openflow_test
