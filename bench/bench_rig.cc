// SPDX-License-Identifier: BSD-3-Clause
#include "bench/bench_rig.h"

#include <rte_cycles.h>
#include <urcu-qsbr.h>

#include <cstring>

#include "bench/measure.h"
#include "graph.h"
#include "platform/quil_modules/counter_db.h"

namespace bench {
namespace {

// Frees whatever enters: the cheapest thing that can stand behind a gate.
class FreeingSink final : public Module {
 public:
  FreeingSink() { max_allowed_workers_ = Worker::kMaxWorkers; }
  CommandResponse Init(const bess::pb::EmptyArg&) { return CommandSuccess(); }
  void ProcessBatch(Context*, bess::PacketBatch* batch) override {
    bess::Packet::Free(batch);
  }
};

void check(const bess::pb::CommandResponse& response) {
  if (response.error().code() != 0) {
    die(response.error().errmsg().c_str());
  }
}

void put32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; i++) {
    at[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
  }
}

void putEthernet(FrameBytes* frame, uint16_t ethType) {
  const uint8_t macs[12] = {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1};
  std::memcpy(frame->data(), macs, sizeof(macs));
  (*frame)[12] = static_cast<uint8_t>(ethType >> 8);
  (*frame)[13] = static_cast<uint8_t>(ethType);
}

void putPorts(uint8_t* l4, uint16_t dstPort) {
  l4[0] = 0x30;
  l4[2] = static_cast<uint8_t>(dstPort >> 8);
  l4[3] = static_cast<uint8_t>(dstPort);
  l4[5] = 8;
  l4[6] = 0x12;
}

quil::pb::OpenFlowAddFlow outputFlow(uint32_t i) {
  quil::pb::OpenFlowAddFlow flow;
  flow.set_flowid(i + 1);
  flow.set_priority(100);
  flow.set_packetcounterid(2 * i);
  flow.set_bytecounterid(2 * i + 1);
  flow.mutable_action()->mutable_fields()->set_setoutputport(true);
  flow.mutable_action()->mutable_values()->add_ogate(kOutputGate);
  return flow;
}

void matchPort(uint32_t i, quil::pb::OfMatch* match) {
  match->mutable_fields()->set_ethtype(true);
  match->mutable_fields()->set_ipproto(true);
  match->mutable_values()->set_ipproto(17);
  match->mutable_fields()->set_l4dstport(true);
  match->mutable_values()->set_l4dstport(flowPort(i));
}

Rig* theRig;

}  // namespace

uint32_t flowDst(uint32_t i) { return 0x0a000000 | (i * 7919 & 0xffff) << 8; }
uint16_t flowPort(uint32_t i) { return static_cast<uint16_t>(1000 + i % 50); }

FrameBytes ipv4Frame(uint32_t dst, uint16_t dstPort) {
  FrameBytes frame = {};
  putEthernet(&frame, 0x0800);
  uint8_t* l3 = &frame[14];
  l3[0] = 0x45;
  l3[3] = 50;
  l3[8] = 64;
  l3[9] = 17;
  put32(l3 + 12, 0xc0000201);
  put32(l3 + 16, dst);
  putPorts(l3 + 20, dstPort);
  return frame;
}

FrameBytes ipv6Frame(uint32_t dstLow, uint16_t dstPort) {
  FrameBytes frame = {};
  putEthernet(&frame, 0x86dd);
  uint8_t* l3 = &frame[14];
  l3[0] = 0x60;
  l3[5] = 8;
  l3[6] = 17;
  l3[7] = 64;
  put32(l3 + 8, 0x20010db8);
  put32(l3 + 24, 0x20010db8);
  put32(l3 + 28, dstLow);
  putPorts(l3 + 40, dstPort);
  return frame;
}

quil::pb::OpenFlowAddFlow prefixPortFlow(uint32_t i) {
  quil::pb::OpenFlowAddFlow flow = outputFlow(i);
  matchPort(i, flow.mutable_match());
  auto* values = flow.mutable_match()->mutable_values();
  values->set_ethtype(0x0800);
  flow.mutable_match()->mutable_fields()->set_ipv4dst(true);
  values->set_ipv4dst(flowDst(i));
  values->set_ipv4dstmask(0xffffff00);
  return flow;
}

quil::pb::OpenFlowAddFlow prefixPortFlow6(uint32_t i) {
  quil::pb::OpenFlowAddFlow flow = outputFlow(i);
  matchPort(i, flow.mutable_match());
  auto* values = flow.mutable_match()->mutable_values();
  values->set_ethtype(0x86dd);
  flow.mutable_match()->mutable_fields()->set_ipv6dst(true);
  const FrameBytes frame = ipv6Frame(flowDst(i), 0);
  values->set_ipv6dst(std::string(frame.begin() + 38, frame.begin() + 54));
  values->set_ipv6dstmask(std::string(8, '\xff') + std::string(8, '\0'));
  return flow;
}

Rig::Rig()
    : worker_([] {
        startEal();
        return 0;
      }()) {
  static const bool registered = ModuleBuilder::RegisterModuleClass(
      [] { return new FreeingSink(); }, "FreeingSink", "FreeingSink",
      "frees packets", bess::MAX_GATES, 0, {},
      MODULE_INIT_FUNC(&FreeingSink::Init));
  if (!registered) {
    die("cannot register the sink");
  }
  const bess::CreateResult made = bess::CreateModule("OpenFlow");
  check(made.response);
  module_ = static_cast<OpenFlow*>(made.module);
  name_ = made.module->name();
  const bess::CreateResult sink = bess::CreateModule("FreeingSink");
  check(sink.response);
  sink_ = sink.module;
  for (uint16_t gate = 1; gate <= 8; gate++) {
    check(bess::ConnectModules(name_, gate, sink.module->name(), gate));
  }
  task_ = new Task(module_, nullptr);
  context()->task = task_;
  for (int wid = 0; wid < 3; wid++) {
    QuilModules::bessCounterDb.create(wid, 1 << 20);
  }
  theRig = this;
}

Rig& Rig::instance() { return *theRig; }

Rig::~Rig() {
  delete task_;
  bess::DestroyAllModules();
}

void Rig::bind(uint32_t table) {
  quil::pb::OpenFlowAclArg arg;
  arg.set_tableid(table);
  arg.set_aclid(2 * table);
  arg.set_ipv6aclid(2 * table + 1);
  google::protobuf::Any any;
  any.PackFrom(arg);
  check(bess::RunModuleCommand(name_, "setAclIds", any));
}

void Rig::setFlows(uint32_t table, bool ipv6,
                   const std::vector<quil::pb::OpenFlowAddFlow>& flows) {
  quil::pb::OpenFlowUpdateFlowsArg arg;
  arg.set_tableid(table);
  arg.set_flowtype(ipv6 ? quil::pb::OPENFLOW_TYPE_IPV6
                        : quil::pb::OPENFLOW_TYPE_IPV4);
  for (uint32_t id = 1; id <= 20000; id++) {
    arg.add_deletes()->set_flowid(id);
  }
  google::protobuf::Any any;
  any.PackFrom(arg);
  check(bess::RunModuleCommand(name_, "updateFlows", any));
  arg.clear_deletes();
  for (const auto& flow : flows) {
    *arg.add_adds() = flow;
  }
  any.PackFrom(arg);
  check(bess::RunModuleCommand(name_, "updateFlows", any));
}

void Rig::fill(const std::vector<FrameBytes>& frames,
               bess::PacketBatch* batch) {
  batch->clear();
  if (next_ >= frames.size()) next_ = 0;  // these are other frames
  bess::Packet* packets[kBurst];
  if (!pool_.AllocBulk(packets, kBurst, sizeof(FrameBytes))) {
    die("the packet pool is dry");
  }
  for (bess::Packet* packet : packets) {
    std::memcpy(packet->head_data<void*>(), frames[next_].data(),
                sizeof(FrameBytes));
    next_ = next_ + 1 == frames.size() ? 0 : next_ + 1;
    batch->add(packet);
  }
}

uint64_t Rig::process(bess::PacketBatch* batch) {
  task_->StartRun(context());
  const uint64_t start = rte_rdtsc_precise();
  module_->ProcessBatch(context(), batch);
  const uint64_t cycles = rte_rdtsc_precise() - start;
  task_->RunPending(context());
  return cycles;
}

const rte_acl_ctx* Rig::classifier(uint32_t slot) {
  auto db = Mio::ptrCast<QuilModules::AclDb>(
      Mio::Entity::singletonExists(QuilModules::AclDb::entityType().name));
  const QuilModules::AclCtxData* data =
      db->getAclCtxTableByTarget(6)->slots[slot].data;
  return data == nullptr ? nullptr : data->ctx;
}

}  // namespace bench
