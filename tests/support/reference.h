// SPDX-License-Identifier: BSD-3-Clause
//
// A slow, obvious twin of the module: one packet and one rule at a time, no
// classifier, no batches in flight, no shared memory. It takes the same
// messages and packets as ModuleHarness and answers with the same results, so
// that random traffic can be compared:
//
//     ModuleHarness harness(options);
//     ReferenceModule twin(options);
//     harness.updateFlows(update), twin.updateFlows(update);
//     EXPECT_EQ(harness.run(packets), twin.run(packets));
//
// Rules of one family that overlap must have distinct priorities: which of two
// equals wins is the classifier's choice.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "openflow.pb.h"
#include "tests/support/module_harness.h"
#include "tests/support/packet.h"
#include "tests/support/reference_keys.h"
#include "tests/support/reference_packet.h"

namespace openflow_test {

class ReferenceModule {
 public:
  explicit ReferenceModule(const HarnessOptions& options = {});

  // 0, or the code with which the command fails.
  int updateFlows(const quil::pb::OpenFlowUpdateFlowsArg& arg);
  void setAclIds(uint32_t tableId, uint32_t aclId, uint32_t ipv6AclId);

  RunResult run(const std::vector<InputPacket>& packets);

  uint32_t numFlows(uint32_t tableId, Family family) const;
  TableCounters tableCounters(uint32_t tableId) const;

  // The last run read bytes behind the data of a copy: what the module makes of
  // them depends on what its buffers held before.
  bool readGarbage() const { return readGarbage_; }

 private:
  struct Rule {
    std::vector<ReferenceField> fields;
    quil::pb::OpenFlowAddFlow flow;
  };
  using Rules = std::vector<Rule>;
  using Published = std::shared_ptr<const Rules>;  // null: no classifier
  using Flows = std::map<uint32_t, quil::pb::OpenFlowAddFlow>;

  struct Table {
    std::array<Flows, 2> flows;  // by family
    bool bound = false;
    std::array<uint32_t, 2> slots{};
    TableCounters counters;
  };

  void pass(unsigned tableId, RunResult* result);
  const quil::pb::OpenFlowAddFlow* choose(unsigned tableId,
                                          const ReferencePacket& packet) const;
  void count(const quil::pb::OpenFlowAddFlow& flow, size_t length,
             RunResult* result) const;
  void output(const quil::pb::OfAction& action, const ReferencePacket& packet,
              RunResult* result);
  void outputController(const quil::pb::OfActionValues& values,
                        const ReferencePacket& packet, uint16_t inPortGate,
                        RunResult* result);
  void emit(ReferencePacket copy, uint32_t gate, RunResult* result);
  void noteGarbage(const ReferencePacket& packet);

  std::set<uint16_t> gates_;
  uint32_t numFlowCounters_;
  std::array<Table, kFlowTables> tables_;
  std::map<uint32_t, Published> slots_;
  std::array<std::vector<ReferencePacket>, kFlowTables> waiting_;
  bool readGarbage_ = false;
};

}  // namespace openflow_test
