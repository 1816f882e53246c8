// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/accounting.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "switch/terminal/amounts.h"

namespace ofswitch {
namespace {

class Accountant {
 public:
  Accountant(const SwitchCounts& counts, MissingPackets* missing)
      : counts_(counts), missing_(*missing) {}

  SwitchAccount make() {
    account_.exact = counts_.exact;
    addPorts();
    addRules();
    for (uint8_t table = 0; table < kNumTables; table++) closeTable(table);
    closePackets();
    closeCopies();
    return std::move(account_);
  }

 private:
  using Kind = RuleEnd::Kind;

  // What does not agree while packets are on their way means nothing.
  template <class... Args>
  void disagree(fmt::format_string<Args...> text, Args&&... args) {
    if (counts_.exact) {
      account_.discrepancies.push_back(
          fmt::format(text, std::forward<Args>(args)...));
    }
  }

  void addPorts() {
    for (const SwitchCounts::Port& port : counts_.ports) {
      const bess::PortStats& stats = port.stats;
      account_.received += stats.rx_packets;
      account_.sent += stats.tx_packets;
      handedOn_ += port.gatePackets;
      if (port.gatePackets != stats.tx_entered) {
        disagree("port {}: {} packets left for it, but {} arrived", port.number,
                 port.gatePackets, stats.tx_entered);
      }
      uint64_t received = stats.rx_packets;
      uint64_t sent = stats.tx_packets;
      for (const bess::DropCauseInfo& cause : bess::kDropCauses) {
        (cause.receive ? received : sent) += stats.drop(cause.cause);
      }
      if (received != stats.rx_received) {
        disagree("port {}: {} packets received, but {} accounted for",
                 port.number, stats.rx_received, received);
      }
      if (sent != stats.tx_entered) {
        disagree("port {}: {} packets to send, but {} accounted for",
                 port.number, stats.tx_entered, sent);
      }
    }
    account_.tables[0].entered = account_.received;
    account_.sent += counts_.controller.packets;
    handedOn_ += counts_.controllerGatePackets;
    if (counts_.controllerGatePackets != counts_.controller.packets) {
      disagree("controller: {} packets left for it, but {} arrived",
               counts_.controllerGatePackets, counts_.controller.packets);
    }
    drop(nullptr, SwitchDrop::kControllerQueueFull,
         counts_.controller.notCaptured);
    drop(nullptr, SwitchDrop::kControllerCaptureFailed,
         counts_.controller.notWritten);
  }

  void drop(TableAccount* table, SwitchDrop cause, uint64_t packets) {
    const auto index = static_cast<size_t>(cause);
    if (table != nullptr) table->drops[index] += packets;
    account_.drops[index] += packets;
  }

  void addRules() {
    for (const auto& [where, packets] : counts_.matched) {
      const auto& [number, end] = where;
      TableAccount& table = account_.tables[number];
      if (end.kind != Kind::kMissed) table.matched += packets;
      switch (end.kind) {
        case Kind::kSent:
          table.forwarded += packets;
          account_.forwarded += packets;
          break;
        case Kind::kGoto:
          account_.tables[end.nextTable].entered += packets;
          break;
        case Kind::kDropped:
          drop(&table, SwitchDrop::kDropAction, packets);
          break;
        case Kind::kTtlExpired:
          drop(&table, SwitchDrop::kTtlExpired, packets);
          break;
        case Kind::kMissed:
          drop(&table, SwitchDrop::kTableMiss, packets);
          break;
        case Kind::kNoOutput:
          drop(&table, SwitchDrop::kNoOutput, packets);
          break;
      }
    }
    for (const auto& [where, packets] : counts_.matchedLater) {
      ends_[where.first] += packets;
    }
    for (uint8_t number = 0; number < kNumTables; number++) {
      const uint64_t misses = counts_.tables[number].tablemisses();
      ends_[number] += misses;
      drop(&account_.tables[number], SwitchDrop::kTableMiss, misses);
    }
  }

  // What is certain to be missing: all of it in an exact reading, otherwise at
  // least the difference, because its second side was read later.
  uint64_t settle(uint64_t* known, uint64_t difference) const {
    *known = counts_.exact ? difference : std::max(*known, difference);
    return *known;
  }

  // Packets that should have been looked up and were not.
  void closeTable(uint8_t number) {
    TableAccount& table = account_.tables[number];
    uint64_t difference = 0;
    if (ends_[number] > table.entered) {
      disagree("table {}: {} packets entered, but {} accounted for", number,
               table.entered, ends_[number]);
    } else if (counts_.exact || number != 0) {
      // What table 0 has yet to look up is still coming from the ports.
      difference = table.entered - ends_[number];
    }
    const uint64_t lost = settle(&missing_.inTable[number], difference);
    if (counts_.tables[number].batchdrops() > 0) {
      drop(&table, SwitchDrop::kLookupFailed, lost);
    } else if (number == 0) {
      if (lost > 0) {
        disagree("table 0: {} of {} packets are not accounted for", lost,
                 table.entered);
      }
    } else {
      drop(&table, SwitchDrop::kNoBufferForTable, lost);
      notCopied_ += lost;
    }
  }

  void closePackets() {
    uint64_t ends = account_.forwarded;
    for (const SwitchDrop cause :
         {SwitchDrop::kTableMiss, SwitchDrop::kDropAction,
          SwitchDrop::kTtlExpired, SwitchDrop::kNoOutput,
          SwitchDrop::kLookupFailed, SwitchDrop::kNoBufferForTable}) {
      ends += account_.drops[static_cast<size_t>(cause)];
    }
    account_.inFlight = account_.received - std::min(account_.received, ends);
    if (ends != account_.received) {
      disagree("{} packets received, but {} accounted for", account_.received,
               ends);
    }
    if (notCopied_ > counts_.failedCopies) {
      disagree("{} did not reach the next table, but only {} failed",
               plural(notCopied_, "packet"),
               plural(counts_.failedCopies, "copy", "copies"));
    }
    drop(nullptr, SwitchDrop::kNoBufferForOutput,
         counts_.failedCopies - std::min(counts_.failedCopies, notCopied_));
  }

  // The module drops each packet that it has handled; what it dropped beyond
  // that were copies for gates that lead nowhere.
  void closeCopies() {
    uint64_t handled = 0;
    for (const uint64_t ends : ends_) handled += ends;
    if (handled > counts_.deadEnds) {
      disagree("{} packets handled, but only {} ended", handled,
               counts_.deadEnds);
    }
    const uint64_t unconnected =
        settle(&missing_.atGates,
               counts_.deadEnds - std::min(handled, counts_.deadEnds));
    drop(nullptr, SwitchDrop::kNoSuchPort, unconnected);
    account_.copiesOutput = handedOn_ + unconnected;
  }

  const SwitchCounts& counts_;
  MissingPackets& missing_;
  SwitchAccount account_;
  std::array<uint64_t, kNumTables> ends_ = {};  // rules' and misses'
  uint64_t handedOn_ = 0;                       // to ports and controller
  uint64_t notCopied_ = 0;                      // for a later table
};

}  // namespace

SwitchAccount makeSwitchAccount(const SwitchCounts& counts,
                                MissingPackets* missing) {
  return Accountant(counts, missing).make();
}

pb::DropCause dropCause(SwitchDrop cause, uint64_t packets) {
  pb::DropCause message;
  message.set_name(info(cause).name);
  message.set_sentence(info(cause).sentence);
  message.set_packets(packets);
  return message;
}

pb::DropCause dropCause(const bess::DropCauseInfo& cause, uint64_t packets,
                        uint16_t port) {
  pb::DropCause message;
  message.set_name(cause.name);
  message.set_sentence(cause.sentence);
  message.set_packets(packets);
  message.set_port(port);
  return message;
}

}  // namespace ofswitch
