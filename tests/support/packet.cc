// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/packet.h"

#include <fmt/format.h>

#include <ostream>

namespace openflow_test {

MetadataBlock& MetadataBlock::withMetadata(uint64_t value) {
  flags |= kMetadataValid;
  metadata = value;
  return *this;
}

MetadataBlock& MetadataBlock::withInPort(uint32_t port) {
  flags |= kInPortValid;
  inPort = port;
  return *this;
}

MetadataBlock& MetadataBlock::withStartTable(uint16_t table) {
  flags |= kStartTableValid;
  startTable = table;
  return *this;
}

MetadataBlock& MetadataBlock::withPuntWord(uint32_t word) {
  flags |= kPuntValid;
  puntWord = word;
  return *this;
}

bool MetadataBlock::operator==(const MetadataBlock& other) const {
  return flags == other.flags &&
         (!(flags & kMetadataValid) || metadata == other.metadata) &&
         (!(flags & kInPortValid) || inPort == other.inPort) &&
         (!(flags & kStartTableValid) || startTable == other.startTable) &&
         (!(flags & kPuntValid) || puntWord == other.puntWord);
}

namespace {

struct CounterName {
  uint64_t TableCounters::*counter;
  const char* name;
};

constexpr CounterName kCounterNames[] = {
    {&TableCounters::updateFailures, "updateFailures"},
    {&TableCounters::aclCreateFailures, "aclCreateFailures"},
    {&TableCounters::aclAddRulesFailures, "aclAddRulesFailures"},
    {&TableCounters::aclBuildFailures, "aclBuildFailures"},
    {&TableCounters::classifyErrors, "classifyErrors"},
    {&TableCounters::noAclCtx, "noAclCtx"},
    {&TableCounters::noClassifier, "noClassifier"},
    {&TableCounters::batchDrops, "batchDrops"},
    {&TableCounters::tableMisses, "tableMisses"},
    {&TableCounters::spareCounter, "spareCounter"},
    {&TableCounters::dropActions, "dropActions"},
    {&TableCounters::noOutputDrops, "noOutputDrops"},
};

}  // namespace

TableCounters operator-(const TableCounters& later,
                        const TableCounters& earlier) {
  TableCounters growth;
  for (const CounterName& row : kCounterNames) {
    growth.*row.counter = later.*row.counter - earlier.*row.counter;
  }
  return growth;
}

size_t RunResult::numEmitted() const {
  size_t sum = 0;
  for (const auto& [gate, packets] : gates) {
    sum += packets.size();
  }
  return sum;
}

TableCounters RunResult::table(unsigned id) const {
  const auto found = tables.find(id);
  return found == tables.end() ? TableCounters{} : found->second;
}

const std::vector<OutputPacket>& RunResult::gate(uint16_t number) const {
  static const std::vector<OutputPacket> kNone;
  const auto found = gates.find(number);
  return found == gates.end() ? kNone : found->second;
}

std::ostream& operator<<(std::ostream& out, const TableCounters& counters) {
  for (const CounterName& row : kCounterNames) {
    if (counters.*row.counter != 0) {
      out << ' ' << row.name << '=' << counters.*row.counter;
    }
  }
  return out;
}

std::ostream& operator<<(std::ostream& out, const MetadataBlock& block) {
  out << fmt::format("flags={:#x}", block.flags);
  if (block.flags & MetadataBlock::kMetadataValid) {
    out << fmt::format(" metadata={:#x}", block.metadata);
  }
  if (block.flags & MetadataBlock::kInPortValid) {
    out << fmt::format(" inPort={:#x}", block.inPort);
  }
  if (block.flags & MetadataBlock::kStartTableValid) {
    out << fmt::format(" startTable={}", block.startTable);
  }
  if (block.flags & MetadataBlock::kPuntValid) {
    out << fmt::format(" puntWord={:#x}", block.puntWord);
  }
  return out;
}

std::ostream& operator<<(std::ostream& out, const InputPacket& packet) {
  out << packet.bytes.size() << " bytes, " << packet.meta
      << fmt::format(", headroom={} segments=[{}] fill={:02x}\n",
                     packet.headroom, fmt::join(packet.segments, ","),
                     packet.fill);
  return out << hexDump(packet.bytes);
}

std::ostream& operator<<(std::ostream& out, const OutputPacket& packet) {
  out << packet.bytes.size() << " bytes, " << packet.meta << '\n';
  return out << hexDump(packet.bytes);
}

std::ostream& operator<<(std::ostream& out, const RunResult& result) {
  for (const auto& [gate, packets] : result.gates) {
    for (size_t i = 0; i < packets.size(); i++) {
      out << "gate " << gate << " packet " << i << ": " << packets[i];
    }
  }
  out << "drops " << result.drops << ", leaked " << result.leakedPackets;
  for (const auto& [table, counters] : result.tables) {
    out << ", table " << table << ':' << counters;
  }
  for (const auto& [id, growth] : result.flowCounters) {
    out << ", counter " << id << " +" << growth;
  }
  return out << '\n';
}

}  // namespace openflow_test
