// SPDX-License-Identifier: BSD-3-Clause
//
// The OpenFlow module on a bench: one call makes an instance with its gates
// connected to capturing sinks, commands go in as the messages that a
// controller would send, batches of packets go in as bytes, and everything that
// comes out - packets in order, metadata, counters, drops, traces - comes back
// as plain values.
//
//     ModuleHarness harness;  // starts the EAL at the first use in the process
//     harness.addFlows(0, {Flow(1, 10).ipProto(6).decTtl().output({2})});
//     RunResult result = harness.run({Frame::eth().ipv4(a, b).tcp(7, 80)});
//     EXPECT_EQ(result.gate(2).size(), 1u);
//     EXPECT_EQ(result.drops, 1u);  // the received packet: outputs are copies
//
// From a project of your own:
//
//     add_subdirectory(path/to/this/repository openflow)
//     target_link_libraries(my_test PRIVATE openflow_test_support)
//
// (tests/consumer is such a project.) The target brings the module's objects
// along; a program that loads the module as a plug-in links
// openflow_plugin_test_support instead. The library does not depend on a test
// framework: what cannot work throws std::runtime_error, what is misused
// std::invalid_argument.
//
// A harness is used by one thread at a time, except for run(). Several may live
// at once when they take different classifier slots (firstSlot).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "openflow.pb.h"
#include "pb/bess_msg.pb.h"
#include "tests/support/flow.h"
#include "tests/support/packet.h"

class Module;
class OpenFlow;

namespace openflow_test {

enum class Family { kIpv4 = 0, kIpv6 = 1 };

struct HarnessOptions {
  // Output gates that lead to a sink; packets for any other gate are dropped by
  // the host.
  std::vector<uint16_t> gates = {0, 1, 2, 3, 4, 5, 6, 7};

  // Bind table t to the slots firstSlot + 2t (IPv4) and firstSlot + 2t + 1
  // (IPv6).
  bool bindTables = true;
  uint32_t firstSlot = 0;

  // Buffers of the pool that packets and their copies come from. Small numbers
  // make it run dry.
  size_t poolPackets = 4096;

  // Counters that every worker used by run() gets in the counter database.
  uint32_t numFlowCounters = 1024;

  // Load the module from this shared library, unless that has happened already.
  // For programs without the module's objects. module() is not available then,
  // and table counters are read by "getStats".
  std::string pluginPath = {};
};

class ModuleHarness {
 public:
  using Options = HarnessOptions;

  explicit ModuleHarness(Options options = {});

  // DeInit and destroys the module, then waits until every deferred release has
  // run.
  ~ModuleHarness();

  ModuleHarness(const ModuleHarness&) = delete;
  ModuleHarness& operator=(const ModuleHarness&) = delete;

  // ---- Commands: packed into an Any and run on the host's command thread.

  bess::pb::CommandResponse command(const std::string& name,
                                    const google::protobuf::Message& arg);
  bess::pb::CommandResponse updateFlows(
      const quil::pb::OpenFlowUpdateFlowsArg& arg);
  bess::pb::CommandResponse setAclIds(uint32_t tableId, uint32_t aclId,
                                      uint32_t ipv6AclId);
  bess::pb::CommandResponse getStats(uint32_t tableId,
                                     quil::pb::OpenFlowGetStatsRespArg* stats);

  // The same for the common case, in which a failure is a mistake of the test:
  // it throws.
  void addFlows(uint32_t tableId, const std::vector<Flow>& flows,
                Family family = Family::kIpv4);
  void deleteFlows(uint32_t tableId, const std::vector<uint32_t>& flowIds,
                   Family family = Family::kIpv4);
  quil::pb::OpenFlowGetStatsRespArg stats(uint32_t tableId);

  // Deletes every flow that came through this harness and has not been deleted
  // since, in all tables.
  void clearFlows();

  // ---- Packets.

  // Hands at most kMaxBatch packets to the module as one batch of worker `wid`
  // and returns what happened. The calling thread does that worker's work.
  // Other threads may run batches of other workers meanwhile; growths and
  // buffers of a result then include theirs.
  RunResult run(const std::vector<InputPacket>& packets, int wid = 0);

  // Growth of worker wid's counter since the harness was made.
  uint64_t flowCounter(uint32_t id, int wid = 0) const;

  // Event counters of a table since the module was made.
  TableCounters tableCounters(unsigned table);

  // ---- The pool.

  // Buffers that are free now. Equal before and after a run, or the module lost
  // some.
  size_t freePackets() const;

  // Takes buffers away until at most `left` are free, and gives them back.
  void drainPool(size_t left);
  void refillPool();

  // Called on the worker's thread between the moment when a batch's buffers are
  // ready and the moment when the module gets it: the place to drain the pool
  // to an exact number.
  void beforeBatch(std::function<void()> hook);

  // ---- Insides.

  OpenFlow& module();
  Module& hostModule();

  // Runs on the command thread and waits, e.g. to look at the module while no
  // command runs.
  void onCommandThread(const std::function<void()>& work);

  // Waits until everything handed to call_rcu so far has been released.
  static void waitForReleases();

  // Starts the EAL and the command thread if that has not happened yet; for
  // tests that need DPDK without a module.
  static void startEal();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace openflow_test
