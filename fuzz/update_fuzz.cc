// SPDX-License-Identifier: BSD-3-Clause
//
// Update messages of any content, within what the module's contract leaves to
// its caller, then traffic: answers, flow counts, and what the published
// classifiers find must be those of the twin, which scans its rules one by one.
//
// Input: a number of messages, each as length (2 bytes) and its serialised
// bytes; what is left seeds the traffic.
#include <rte_log.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "tests/support/kept_for_good.h"
#include "tests/support/module_harness.h"
#include "tests/support/random_traffic.h"
#include "tests/support/reference.h"

namespace openflow_test {
namespace {

using openflow_fuzz::fail;
using openflow_fuzz::Input;
using quil::pb::OpenFlowUpdateFlowsArg;

constexpr int kMaxUpdates = 4;
constexpr int kMaxFlowIds = 64;

// A match MAC of another length than 6 is fatal by contract, and equal
// priorities leave the choice to the classifier: neither is asked of the
// module.
void keepContract(OpenFlowUpdateFlowsArg* update) {
  for (auto& add : *update->mutable_adds()) {
    add.set_flowid(add.flowid() % kMaxFlowIds);
    if (add.priority() != 0 && add.priority() < 1u << 29) {
      add.set_priority((add.priority() & 0xffff) * kMaxFlowIds + add.flowid() +
                       1);
    }
    auto* values = add.mutable_match()->mutable_values();
    for (std::string* mac :
         {values->mutable_ethdst(), values->mutable_ethdstmask(),
          values->mutable_ethsrc(), values->mutable_ethsrcmask()}) {
      mac->resize(6);
    }
  }
  for (auto& removed : *update->mutable_deletes()) {
    removed.set_flowid(removed.flowid() % kMaxFlowIds);
  }
}

class Bench {
 public:
  // Rules that the classifier refuses are nothing to report here.
  Bench() { rte_log_set_level_pattern("lib.acl", RTE_LOG_EMERG); }

  void update(const OpenFlowUpdateFlowsArg& update) {
    const int expected = twin_.updateFlows(update);
    std::optional<KeptForGood> records;
    if (expected != 0) records.emplace();
    const bool known = update.tableid() < kFlowTables;
    const auto answer = known ? harness_.updateFlows(update)
                              : harness_.command("updateFlows", update);
    if (answer.error().code() != expected) {
      fail("answered {} \"{}\", expected {}: {}", answer.error().code(),
           answer.error().errmsg(), expected, update.ShortDebugString());
    }
    applied_.push_back(update.ShortDebugString());
  }

  void traffic(uint64_t seed) {
    Random random(seed);
    RandomPacketOptions options;
    for (int batch = 0; batch < 3; batch++) {
      const auto packets = randomBatch(&random, options);
      const RunResult module = harness_.run(packets);
      const RunResult expected = twin_.run(packets);
      if (twin_.readGarbage() || module == expected) continue;
      std::ostringstream text;
      for (const std::string& update : applied_) text << update << "\n";
      for (const InputPacket& packet : packets) text << packet;
      text << "module\n" << module << "twin\n" << expected;
      fail("{}", text.str());
    }
  }

  // What one input installs must not be there for the next.
  void clear() {
    harness_.clearFlows();
    for (uint32_t table = 0; table < kFlowTables; table++) {
      for (const auto family :
           {quil::pb::OPENFLOW_TYPE_IPV4, quil::pb::OPENFLOW_TYPE_IPV6}) {
        OpenFlowUpdateFlowsArg update;
        update.set_tableid(table);
        update.set_flowtype(family);
        for (int id = 0; id < kMaxFlowIds; id++) {
          update.add_deletes()->set_flowid(static_cast<uint32_t>(id));
        }
        twin_.updateFlows(update);
      }
    }
    applied_.clear();
  }

 private:
  ModuleHarness harness_;
  ReferenceModule twin_;
  std::vector<std::string> applied_;
};

}  // namespace
}  // namespace openflow_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace openflow_test;
  static Bench bench;
  Input input(data, size);
  for (int n = 0; n < kMaxUpdates && !input.empty(); n++) {
    const std::string_view bytes = input.bytes(input.take<uint16_t>());
    OpenFlowUpdateFlowsArg update;
    if (!update.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
      continue;
    }
    keepContract(&update);
    bench.update(update);
  }
  bench.traffic(input.take<uint64_t>());
  bench.clear();
  return 0;
}
