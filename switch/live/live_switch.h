// SPDX-License-Identifier: BSD-3-Clause
//
// A switch that runs: its ports, its workers, one OpenFlow module and the
// operator's flows.
//
//   port1 (rx) --+                      +--> gate 1 --> port1 (tx)
//   port2 (rx) --+--> module "openflow"-+--> gate 2 --> port2 (tx)
//                                       +--> gate 0 --> "controller"
//
// Gate N leads to port N. Table t is bound to slots 2t and 2t + 1 of the
// classifier database. What goes to the controller is counted, kept for the
// log and, if configured, written to a capture file.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "switch.pb.h"
#include "switch/flow/translator.h"
#include "switch/live/config.h"
#include "switch/live/flow_listing.h"

namespace ofswitch {

// Why a switch cannot start: one line for a person.
struct StartError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Whoever started it wanted it no more.
struct StartCancelled : std::exception {};

// A request of an operator that is wrong: one line for a person. Nothing has
// changed.
struct BadRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One a process. Every function may be called from any thread but a worker;
// they take their turn on the host's command thread and wait for it. Replies
// are messages because each of their readers (the control socket, --json,
// metrics) wants them so.
class LiveSwitch {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = std::function<Clock::time_point()>;
  // Called on the command thread; must not wait.
  using Progress = std::function<void(const pb::FlowProgress&)>;
  // Answers false when it has seen enough.
  using FlowVisitor = std::function<bool(const pb::FlowEntry&)>;

  // `now` is what timeouts and ages go by.
  explicit LiveSwitch(SwitchConfig config, Now now = Clock::now);
  // Stops.
  ~LiveSwitch();
  LiveSwitch(const LiveSwitch&) = delete;
  LiveSwitch& operator=(const LiveSwitch&) = delete;

  // Once. Starts the environment, opens the ports, loads the flow files, then
  // lets the workers run. Throws StartError, and has then undone what it did.
  // Asks between the builds of classifiers whether it is to go on, and throws
  // StartCancelled if not.
  void start(const std::function<bool()>& isCancelled = {});

  // Stops receiving, sends what was received, takes everything apart. Answers
  // the final statistics, which are exact.
  pb::StatsReply stop();
  // What went wrong with the controller's capture; known after stop().
  const std::string& captureError() const;

  bool running() const;
  // Whether classifiers are being built now.
  bool isChangingFlows() const;
  const SwitchConfig& config() const;

  // Lines for an operator about the start that are no errors, e.g. what
  // hugepages would gain.
  std::vector<std::string> startNotes() const;

  // Everything of `change` or nothing of it. Whatever is wrong with the request
  // stands in the reply; this throws nothing. Returns after a grace period, so
  // that packets received from now on meet the new flows.
  pb::FlowChangeReply changeFlows(const pb::FlowChange& change,
                                  const Progress& progress = {});

  // The flows that `filter` selects as they are at one moment. Throws
  // BadRequest.
  FlowListing listFlows(const pb::FlowFilter& filter) const;

  // The same for who takes all of them at once. The visitor runs on the calling
  // thread.
  void dumpFlows(const pb::FlowFilter& filter,
                 const FlowVisitor& visitor) const;

  pb::TablesReply tables(const pb::TablesRequest& request) const;
  pb::PortsReply ports() const;
  pb::StatsReply stats(const pb::StatsRequest& request = {}) const;

  // Everything that is counted, read together, for who wants all of it often.
  struct FlowReading {
    std::shared_ptr<const InstalledFlow> flow;
    uint64_t packets = 0;
    uint64_t bytes = 0;
  };
  struct Reading {
    pb::StatsReply stats;
    pb::TablesReply tables;  // all 32
    pb::PortsReply ports;
    std::vector<FlowReading> flows;  // the first ones of `dumpFlows`
  };
  // With at most `mostFlows` flows; nothing while the switch does not run.
  std::optional<Reading> read(size_t mostFlows) const;

  // Of the first `most` entries of the trace ring from `request.since()` on
  // those that it selects, and the position to go on from. Never waits;
  // `follow` is the caller's.
  struct LogReading {
    std::vector<pb::LogEntry> entries;
    uint64_t next = 0;
  };
  LogReading readLog(const pb::LogRequest& request,
                     size_t most = SIZE_MAX) const;

  // Answers the levels that hold afterwards. Throws BadRequest for a facility
  // that does not exist.
  pb::LogLevels setLogLevels(const pb::LogLevels& levels);

  // Tells what the flows in force would do to one packet. Nothing is sent, no
  // counter moves, no worker waits. Why it cannot be told stands in the reply;
  // this throws nothing.
  pb::TraceReply trace(const pb::TraceRequest& request);

  // Looks after idle and hard timeouts now; also done once a second.
  void expireFlows();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ofswitch
