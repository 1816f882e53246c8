// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/table_probe.h"

#include <fmt/format.h>
#include <rte_mbuf.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "modules/port_metadata.h"
#include "openflow.pb.h"
#include "pb/bess_msg.pb.h"
#include "switch/flow/flow.h"

namespace ofswitch {
namespace {

using QuilModules::bessCounterDb;

// Behind the 64 slots of the live tables.
constexpr uint32_t kSpareSlot = 2 * kNumTables;
// What table 0 hands on to a later table leaves here, behind whatever its own
// flow sent to the same gate.
constexpr uint16_t kCaptureGate = kMaxPort;
// The largest output list of a flow, in-port, controller and next table, the
// copy that leaves that one, and the packet.
constexpr size_t kMaxCopies = 64 + 5;
constexpr size_t kSegments =
    (kMaxFrame + bess::Packet::kDataRoom - 1) / bess::Packet::kDataRoom;
constexpr size_t kBuffers = 511;
static_assert(kBuffers >= kMaxCopies * kSegments,
              "no copy fails for want of a buffer");

google::protobuf::Any packed(const google::protobuf::Message& message) {
  google::protobuf::Any any;
  any.PackFrom(message);
  return any;
}

void require(const CommandResponse& response) {
  if (response.error().code() == 0) return;
  throw ProbeError(fmt::format("the packet cannot be traced: {}",
                               response.error().errmsg()));
}

// Outside of the graph that operators see and change.
Module* makeModule(const char* className, const char* name) {
  const auto& builders = ModuleBuilder::all_module_builders();
  const auto found = builders.find(className);
  if (found == builders.end()) {
    throw ProbeError(fmt::format("there is no module class {}", className));
  }
  std::unique_ptr<Module> module(found->second.CreateModule(name));
  require(found->second.RunInit(module.get(), packed(bess::pb::EmptyArg())));
  return module.release();
}

int spareWorker() {
  for (int wid = Worker::kMaxWorkers - 1; wid >= 0; wid--) {
    if (!Worker::Exists(wid) && bessCounterDb[wid] == nullptr) return wid;
  }
  throw ProbeError(fmt::format(
      "the switch runs all {} workers that there can be; tracing takes the "
      "number of one more (workers: {})",
      Worker::kMaxWorkers, Worker::kMaxWorkers - 1));
}

// Frees what was made of it if the pool runs dry.
bess::Packet* makePacket(bess::PacketPool* pool, const ProbeFrame& frame) {
  constexpr size_t kRoom = bess::Packet::kDataRoom;
  bess::Packet* first = nullptr;
  for (size_t at = 0; at < frame.bytes.size(); at += kRoom) {
    const size_t length = std::min(kRoom, frame.bytes.size() - at);
    bess::Packet* segment = pool->Alloc(static_cast<uint16_t>(length));
    if (segment == nullptr) {
      if (first != nullptr) bess::Packet::Free(first);
      throw ProbeError("no packet buffer is free for the trace");
    }
    char* data = segment->head_data<char*>();
    std::memset(data, 0, kRoom);
    std::memcpy(data, frame.bytes.data() + at, length);
    if (first == nullptr) {
      first = segment;
      std::memcpy(data + length, frame.behind.data(),
                  std::min(kRoom - length, frame.behind.size()));
    } else {
      rte_pktmbuf_chain(first->mbuf(), segment->mbuf());
    }
  }
  return first;
}

ProbeFrame frameOf(const bess::Packet& pkt) {
  ProbeFrame frame;
  for (const bess::Packet* segment = &pkt; segment != nullptr;
       segment = segment->mbuf()->next != nullptr ? segment->next() : nullptr) {
    frame.bytes.append(segment->head_data<const char*>(),
                       static_cast<size_t>(segment->head_len()));
  }
  if (pkt.is_linear()) {
    // As far as copies take it along.
    constexpr size_t kLine = bess::Packet::kCopyLine;
    const size_t length = frame.bytes.size();
    const size_t lines = (std::max(length, size_t{1}) + kLine - 1) / kLine;
    frame.behind.assign(
        pkt.head_data<const char*>() + length,
        std::min<size_t>(lines * kLine - length, pkt.tailroom()));
  }
  return frame;
}

}  // namespace

// Both ends of the instance: gives it the packet, takes what leaves.
class TableProbe::Port final : public Module {
 public:
  static constexpr char kClassName[] = "TraceProbe";

  CommandResponse Init(const bess::pb::EmptyArg&) {
    if (RegisterTask(nullptr) == INVALID_TASK_ID) {
      return CommandFailure(ENOMEM, "cannot make a task");
    }
    return CommandSuccess();
  }

  task_result RunTask(Context* ctx, bess::PacketBatch* batch, void*) override {
    batch->add(std::exchange(packet_, nullptr));
    RunNextModule(ctx, batch);
    return {.block = false, .packets = 1, .bits = 0};
  }

  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override {
    for (int i = 0; i < batch->cnt(); i++) {
      copies_.push_back({ctx->current_igate, frameOf(*batch->pkts()[i])});
    }
    bess::Packet::Free(batch);
    batch->clear();
  }

  std::vector<Session::Copy> send(bess::InlineWorker* worker,
                                  bess::Packet* packet) {
    packet_ = packet;
    worker->Run(tasks().front().get());
    return std::exchange(copies_, {});
  }

  static const bool registered;

 private:
  bess::Packet* packet_ = nullptr;
  std::vector<Session::Copy> copies_;
};

const bool TableProbe::Port::registered = ModuleBuilder::RegisterModuleClass(
    [] { return new Port; }, kClassName, "trace_probe",
    "gives a packet to tables beside the traffic and takes what leaves",
    MAX_GATES, 1, {}, MODULE_INIT_FUNC(&Port::Init));

TableProbe::TableProbe(const std::vector<uint16_t>& gates, uint32_t counters)
    : counters_(counters), pool_(kBuffers, 0) {
  try {
    tables_ = makeModule("OpenFlow", "trace_tables");
    fillSpareSlot();
    port_ = static_cast<Port*>(makeModule(Port::kClassName, "trace_port"));
    port_->ConnectGate(0, tables_, 0);
    for (const uint16_t gate : gates) link(gate);
    link(kCaptureGate);
  } catch (...) {
    destroy();
    throw;
  }
}

TableProbe::~TableProbe() { destroy(); }

// All tables are bound to it.
void TableProbe::fillSpareSlot() {
  for (uint32_t table = 0; table < kNumTables; table++) {
    bind(table, kSpareSlot, kSpareSlot + 1);
  }
  quil::pb::OpenFlowUpdateFlowsArg update;
  update.set_tableid(kNumTables - 1);
  quil::pb::OpenFlowAddFlow* flow = update.add_adds();
  flow->set_flowid(1);
  flow->set_priority(1);
  flow->set_packetcounterid(handedOnCounter());
  flow->set_bytecounterid(handedOnCounter() + 1);  // there is none
  flow->mutable_action()->mutable_fields()->set_setoutputport(true);
  flow->mutable_action()->mutable_values()->add_ogate(kCaptureGate);
  command("updateFlows", update);
}

void TableProbe::destroy() {
  if (port_ != nullptr) port_->DisconnectAll();
  if (tables_ != nullptr) tables_->DeInit();
  delete port_;
  delete tables_;
}

void TableProbe::bind(uint32_t table, uint32_t slot, uint32_t ipv6Slot) {
  quil::pb::OpenFlowAclArg arg;
  arg.set_tableid(table);
  arg.set_aclid(slot);
  arg.set_ipv6aclid(ipv6Slot);
  command("setAclIds", arg);
}

void TableProbe::command(const char* name,
                         const google::protobuf::Message& arg) {
  require(tables_->module_builder()->RunCommand(tables_, name, packed(arg)));
}

// No worker runs these modules: there is nobody to pause.
bool TableProbe::link(uint16_t gate) {
  return tables_->ConnectGate(gate, port_, gate) == 0;
}

// Binds table 0 to the slots of a live table while it lives.
class TableProbe::LiveBinding {
 public:
  LiveBinding(TableProbe* probe, uint8_t table) : probe_(*probe) {
    probe_.bind(0, 2u * table, 2u * table + 1);
  }
  ~LiveBinding() { probe_.bind(0, kSpareSlot, kSpareSlot + 1); }
  LiveBinding(const LiveBinding&) = delete;
  LiveBinding& operator=(const LiveBinding&) = delete;

 private:
  TableProbe& probe_;
};

TableProbe::Session::Session(TableProbe* probe)
    : probe_(*probe), worker_(spareWorker()) {
  const int wid = worker_.context()->wid;
  bessCounterDb.create(wid, probe_.handedOnCounter() + 1);
  counts_ = bessCounterDb[wid];
}

TableProbe::Session::~Session() {
  for (const uint16_t gate : moreGates_) probe_.tables_->DisconnectGate(gate);
  bessCounterDb.destroy(worker_.context()->wid);
}

bool TableProbe::Session::capture(uint16_t gate) {
  if (!probe_.link(gate)) return false;
  moreGates_.push_back(gate);
  return true;
}

TableProbe::Session::Pass TableProbe::Session::run(uint8_t table,
                                                   const ProbeFrame& frame,
                                                   uint16_t inPort) {
  bess::Packet* packet = makePacket(&probe_.pool_, frame);
  bess::SetReceivedOn(packet, inPort);
  const int wid = worker_.context()->wid;
  const uint64_t ended = probe_.tables_->deadends(wid);
  Pass pass;
  {
    const LiveBinding binding(&probe_, table);
    pass.copies = probe_.port_->send(&worker_, packet);
  }
  // Tables end every packet that they could look up; a batch that they cannot
  // is freed.
  pass.lookedUp = probe_.tables_->deadends(wid) != ended;
  takeCounts(&pass);
  return pass;
}

// The rule that won has counted one packet and its bytes, of which there are
// more.
void TableProbe::Session::takeCounts(Pass* pass) {
  const uint32_t handedOn = probe_.handedOnCounter();
  for (uint32_t id = 0; id < counts_->size(); id++) {
    const uint64_t count = counts_->read(id);
    if (count == 0) continue;
    counts_->add(id, 0 - count);  // for the next table
    if (id == handedOn) {
      const auto last = std::find_if(
          pass->copies.rbegin(), pass->copies.rend(),
          [](const Copy& copy) { return copy.gate == kCaptureGate; });
      pass->handedOn = std::move(last->frame);
      pass->copies.erase(std::next(last).base());
    } else if (count == 1) {
      pass->packetCounter = id;
    }
  }
}

}  // namespace ofswitch
