// SPDX-License-Identifier: BSD-3-Clause
//
// The names that modules are written against, with their types: what compiles
// here compiles with any host that has them. Most of it the compiler tests.
#include <gtest/gtest.h>

#include <concepts>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "commands.h"
#include "event.h"
#include "gate.h"
#include "message.h"
#include "module.h"
#include "packet.h"
#include "packet_pool.h"
#include "pktbatch.h"
#include "task.h"
#include "utils/ether.h"
#include "worker.h"

namespace {

using bess::Packet;
using bess::PacketBatch;
using google::protobuf::Any;
using std::integral;
using std::same_as;

template <typename A, typename B>
constexpr bool kSame = std::is_same_v<A, B>;

// ---- Packets.

static_assert(requires(const Packet& packet) {
  { packet.head_data() } -> same_as<void*>;
  { packet.head_data<uint8_t*>() } -> same_as<uint8_t*>;
  { packet.head_data<const char*>(14) } -> same_as<const char*>;
  { packet.metadata<uint64_t*>() } -> same_as<uint64_t*>;
  { packet.head_len() } -> integral;
  { packet.data_len() } -> integral;
  { packet.total_len() } -> integral;
  { packet.headroom() } -> integral;
  { packet.tailroom() } -> integral;
  { packet.nb_segs() } -> integral;
  { packet.next() } -> same_as<Packet*>;
  { packet.is_linear() } -> same_as<bool>;
});

static_assert(requires(const uint16_t n, Packet& packet, Packet** packets,
                       PacketBatch* batch) {
  { packet.prepend(n) } -> same_as<void*>;
  { packet.adj(n) } -> same_as<void*>;
  { packet.append(n) } -> same_as<void*>;
  { packet.set_data_len(n) } -> same_as<void>;
  { packet.set_total_len(n) } -> same_as<void>;
  { Packet::Free(&packet) } -> same_as<void>;
  { Packet::Free(packets, n) } -> same_as<void>;
  { Packet::Free(batch) } -> same_as<void>;
});
static_assert(kSame<decltype(&Packet::copy), Packet* (*)(const Packet*)>);

static_assert(requires(const int n, PacketBatch& batch, PacketBatch* other,
                       Packet* packet) {
  { batch.set_cnt(n) } -> same_as<void>;
  { batch.incr_cnt() } -> same_as<void>;
  { batch.incr_cnt(n) } -> same_as<void>;
  { batch.pkts() } -> same_as<Packet**>;
  { batch.clear() } -> same_as<void>;
  { batch.add(packet) } -> same_as<void>;
  { batch.add(other) } -> same_as<void>;
});

static_assert(requires(const PacketBatch& batch) {
  { batch.cnt() } -> same_as<int>;
  { batch.pkts() } -> same_as<Packet* const*>;
  { batch.empty() } -> same_as<bool>;
  { batch.full() } -> same_as<bool>;
});

// ---- Modules.

static_assert(kSame<decltype(Context::current_tsc), uint64_t>);
static_assert(kSame<decltype(Context::current_ns), uint64_t>);
static_assert(kSame<decltype(Context::wid), int>);
static_assert(kSame<decltype(Context::task), Task*>);
static_assert(kSame<decltype(Context::silent_drops), uint64_t>);
static_assert(kSame<decltype(Context::current_igate), gate_idx_t>);
static_assert(kSame<gate_idx_t, uint16_t>);
static_assert(kSame<bess::gate_idx_t, uint16_t>);

static_assert(kSame<decltype(&Module::DeInit), void (Module::*)()>);
static_assert(kSame<decltype(&Module::RunTask),
                    task_result (Module::*)(Context*, PacketBatch*, void*)>);
static_assert(kSame<decltype(&Module::ProcessBatch),
                    void (Module::*)(Context*, PacketBatch*)>);
static_assert(kSame<decltype(&Module::OnEvent), int (Module::*)(bess::Event)>);
static_assert(
    kSame<decltype(&Module::GetDesc), std::string (Module::*)() const>);
static_assert(kSame<decltype(&Module::AddActiveWorker),
                    void (Module::*)(int, const Task*)>);
static_assert(kSame<decltype(&Module::CheckModuleConstraints),
                    CheckConstraintResult (Module::*)() const>);
static_assert(kSame<decltype(&Module::Init),
                    CommandResponse (Module::*)(const bess::pb::EmptyArg&)>);
static_assert(kSame<decltype(&Module::EmitPacket),
                    void (Module::*)(Context*, Packet*, gate_idx_t)>);
static_assert(
    kSame<decltype(&Module::DropPacket), void (Module::*)(Context*, Packet*)>);
static_assert(kSame<decltype(&Module::RunNextModule),
                    void (Module::*)(Context*, PacketBatch*)>);
static_assert(kSame<decltype(&Module::RunChooseModule),
                    void (Module::*)(Context*, gate_idx_t, PacketBatch*)>);
static_assert(
    kSame<decltype(&Module::ProcessOGates), void (Module::*)(Context*)>);

static_assert(requires(const gate_idx_t gate, Module& module, Context* ctx,
                       Packet* packet) {
  module.EmitPacket(ctx, packet, gate);
  module.EmitPacket(ctx, packet);  // on gate 0
  module.RegisterTask(nullptr);
});

static_assert(requires(const Module& module) {
  { module.name() } -> same_as<const std::string&>;
  { module.igates()[0] } -> same_as<bess::IGate* const&>;
  { module.ogates()[0] } -> same_as<bess::OGate* const&>;
  { module.deadends()[15] } -> std::convertible_to<uint64_t>;
});

static_assert(
    kSame<decltype(&Task::AllocPacketBatch), PacketBatch* (Task::*)()>);
static_assert(kSame<decltype(&Task::dead_batch), PacketBatch* (Task::*)()>);
static_assert(kSame<decltype(&Task::AddToRun),
                    void (Task::*)(bess::IGate*, PacketBatch*)>);

// ---- Registration and commands.

static_assert(kSame<decltype(&ModuleBuilder::RegisterModuleClass),
                    bool (*)(std::function<Module*()>, const std::string&,
                             const std::string&, const std::string&, gate_idx_t,
                             gate_idx_t, const Commands&, module_init_func_t)>);
static_assert(kSame<decltype(&ModuleBuilder::DeregisterModuleClass),
                    bool (*)(const std::string&)>);

static_assert(requires(const ModuleBuilder& builder, Module* module,
                       const Any& arg) {
  {
    ModuleBuilder::all_module_builders().at("OpenFlow")
    } -> same_as<const ModuleBuilder&>;
  { builder.CreateModule("name") } -> same_as<Module*>;
  { builder.cmds() } -> same_as<const Commands&>;
  { builder.RunCommand(module, "cmd", arg) } -> same_as<CommandResponse>;
  { builder.RunInit(module, arg) } -> same_as<CommandResponse>;
});

static_assert(THREAD_UNSAFE == 0 && THREAD_SAFE == 1);
static_assert(kSame<Commands, std::vector<Command>>);
static_assert(kSame<decltype(Command::cmd), std::string>);
static_assert(kSame<decltype(Command::arg_type), std::string>);
static_assert(kSame<decltype(Command::func),
                    std::function<CommandResponse(Module*, const Any&)>>);
static_assert(kSame<decltype(Command::mt_safe), ThreadSafety>);
static_assert(kSame<CommandResponse, bess::pb::CommandResponse>);

static_assert(requires(const CommandResponse& response) {
  { CommandSuccess() } -> same_as<CommandResponse>;
  { CommandSuccess(bess::pb::EmptyArg()) } -> same_as<CommandResponse>;
  { CommandFailure(12) } -> same_as<CommandResponse>;
  { CommandFailure(12, "%d", 5) } -> same_as<CommandResponse>;
  { response.error().code() } -> same_as<int32_t>;
  { response.error().errmsg() } -> same_as<const std::string&>;
  { response.data() } -> same_as<const Any&>;
});

// Its members make a command, in this order.
TEST(InterfaceTypes, ACommandIsItsMembers) {
  const Command command = {"cmd", "Arg", MODULE_CMD_FUNC(&Module::Init),
                           THREAD_SAFE};
  EXPECT_EQ(command.cmd, "cmd");
  EXPECT_EQ(command.arg_type, "Arg");
  EXPECT_TRUE(command.func);
  EXPECT_EQ(command.mt_safe, THREAD_SAFE);
  const GenericCommand<int> plain = {"cmd", "Arg", 7, THREAD_UNSAFE};
  EXPECT_EQ(plain.func, 7);
}

}  // namespace
