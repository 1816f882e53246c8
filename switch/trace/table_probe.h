// SPDX-License-Identifier: BSD-3-Clause
//
// One packet through one table of the running switch, beside the traffic.
//
// A second instance of the module looks at the same published classifiers, in
// the same slots of the classifier database:
//
//                      +--- instance of the probe ----+
//   the packet ------> | table 0   --> live slots of  |--> gates --> captured
//                      |               table t        |
//                      | table 1.. --> spare slots:   |--> capture gate
//                      |   "send everything to the    |    = the copy for the
//                      |    capture gate"             |    next table
//                      +------------------------------+
//
// Table 0 plays every table in turn; it is bound to live slots only while a
// packet is on its way, so that the end of the instance, which frees the
// classifiers that it is bound to, never meets a live one. Flows count in the
// arrays of workers: the probe works as a worker of its own, and the counter
// that moved there tells the flow that won. All of it belongs to the command
// thread, where flows change, too: classifiers hold still during a trace. No
// worker is paused, and none ever runs the instance.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "inline_worker.h"
#include "module.h"
#include "packet_pool.h"
#include "platform/quil_modules/counter_db.h"

namespace ofswitch {

// Why no packet can be traced now: one line for a person.
struct ProbeError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A frame, and what lies behind it in its buffer as far as tables look: they
// read and write headers at fixed positions, also beyond the end of a short
// frame.
struct ProbeFrame {
  std::string bytes;
  std::string behind = {};
};

inline constexpr size_t kMinFrame = 14;
inline constexpr size_t kMaxFrame = 9728;

// The modules of the probe; made at the first trace, then kept.
class TableProbe {
 public:
  // `gates` are those of the switch, `counters` the flow counters of a worker.
  // Throws ProbeError.
  TableProbe(const std::vector<uint16_t>& gates, uint32_t counters);
  ~TableProbe();
  TableProbe(const TableProbe&) = delete;
  TableProbe& operator=(const TableProbe&) = delete;

  class Session;

 private:
  class Port;
  class LiveBinding;

  void fillSpareSlot();
  void destroy();
  void bind(uint32_t table, uint32_t slot, uint32_t ipv6Slot);
  void command(const char* name, const google::protobuf::Message& arg);
  bool link(uint16_t gate);
  // Counts the copies for a later table, behind the counters of flows.
  uint32_t handedOnCounter() const { return counters_; }

  uint32_t counters_;
  bess::PacketPool pool_;
  Module* tables_ = nullptr;
  Port* port_ = nullptr;
};

// One trace. While it lives, the probe is a worker.
class TableProbe::Session {
 public:
  struct Copy {
    uint16_t gate = 0;
    ProbeFrame frame;
  };
  // What one table did.
  struct Pass {
    // Of the rule that won; none if none did.
    std::optional<uint32_t> packetCounter;
    bool lookedUp = true;      // false: the table has no usable classifier
    std::vector<Copy> copies;  // that leave, gate by gate
    std::optional<ProbeFrame> handedOn;  // to a later table
  };

  // Throws ProbeError when no worker's number is free.
  explicit Session(TableProbe* probe);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Captures what leaves by `gate`, too; without that only what leaves by the
  // gates of the switch is. Answers false when it is captured already.
  bool capture(uint16_t gate);

  Pass run(uint8_t table, const ProbeFrame& frame, uint16_t inPort);

 private:
  void takeCounts(Pass* pass);

  TableProbe& probe_;
  bess::InlineWorker worker_;
  QuilModules::WorkerCounters* counts_ = nullptr;
  std::vector<uint16_t> moreGates_;
};

}  // namespace ofswitch
