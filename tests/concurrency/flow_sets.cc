// SPDX-License-Identifier: BSD-3-Clause
#include "tests/concurrency/flow_sets.h"

#include "tests/support/flow.h"

namespace openflow_test {
namespace {

// A set's identifiers start at one of these.
constexpr uint32_t kFirstIds[] = {1, 101};

}  // namespace

Mac encode(const FlowLabel& label) {
  Mac mac = {0x02, static_cast<uint8_t>(label.step << 4 | label.family << 3 |
                                        label.packetClass)};
  put32(&mac[2], label.version);
  return mac;
}

FlowLabel decode(const uint8_t* mac) {
  return {size_t{mac[1]} >> 4, size_t{mac[1]} >> 3 & 1, size_t{mac[1]} & 7,
          get32(mac + 2)};
}

quil::pb::OpenFlowUpdateFlowsArg FlowSet::message() const {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_tableid(kChain[step_]);
  arg.set_flowtype(static_cast<quil::pb::OpenFlowType>(family_));
  return arg;
}

void FlowSet::removeFrom(uint32_t firstId,
                         quil::pb::OpenFlowUpdateFlowsArg* arg) {
  for (uint32_t i = 0; i < kClasses + 1; i++) {
    arg->add_deletes()->set_flowid(firstId + i);
  }
}

quil::pb::OpenFlowUpdateFlowsArg FlowSet::replaceBy(uint32_t version,
                                                    Random* random) {
  quil::pb::OpenFlowUpdateFlowsArg arg = message();
  const uint32_t before = firstId_;
  firstId_ = random->pick(kFirstIds);
  const uint32_t turn = random->below(kClasses);
  for (uint32_t c = 0; c < kClasses; c++) {
    Flow flow(firstId_ + (c + turn) % kClasses, 10 + random->below(100));
    flow.ethType(family_ == 0 ? 0x0800 : 0x86dd)
        .ipProto(17)
        .l4DstPort(portOf(c))
        .counters(counterOf(step_, family_, c),
                  counterOf(step_, family_, c) + 1)
        .setL4SrcPort(version & 0xffff)
        .output({gateOf(step_, family_, version)});
    const Mac label = encode({step_, family_, c, version});
    step_ == 1 ? flow.setEthSrc(label) : flow.setEthDst(label);
    if (step_ + 1 < kSteps) flow.gotoTable(kChain[step_ + 1]);
    *arg.add_adds() = flow.message();
  }
  // Sometimes one more, which no packet matches.
  const bool oneMore = random->oneIn(2);
  if (oneMore) {
    *arg.add_adds() =
        Flow(firstId_ + kClasses, 200).ipProto(99).drop().message();
  } else {
    arg.add_deletes()->set_flowid(firstId_ + kClasses);
  }
  if (before != 0 && before != firstId_) removeFrom(before, &arg);
  numFlows_ = kClasses + (oneMore ? 1 : 0);
  return arg;
}

quil::pb::OpenFlowUpdateFlowsArg FlowSet::remove() {
  quil::pb::OpenFlowUpdateFlowsArg arg = message();
  for (const uint32_t firstId : kFirstIds) removeFrom(firstId, &arg);
  firstId_ = 0;
  numFlows_ = 0;
  return arg;
}

}  // namespace openflow_test
