// SPDX-License-Identifier: BSD-3-Clause
//
// The OpenFlow module: up to 32 flow tables, each with a classifier of IPv4 and
// one of IPv6 flows.
//
//   updateFlows --> translate/ --> flow stores --> tables/ build
//                                                    | rcu_xchg_pointer
//                                                    v
//   packets --> datapath/ --------- rcu_dereference --> slot of the AclDb
//
// Commands run on the host's control thread while workers process packets.
// They meet only in the slots: a build is made aside, published by one pointer
// exchange, and what it replaces is freed after a grace period. Workers never
// read the flow stores and never lock.
#pragma once

#include <rte_acl.h>

#include <cstddef>
#include <cstdint>

#include "commands.h"
#include "message.h"
#include "module.h"
#include "modules/openflow/flow_table.h"
#include "openflow.pb.h"
#include "packet.h"
#include "pktbatch.h"
#include "platform/mio/mio.h"
#include "platform/quil_modules/acl_db.h"
#include "platform/quil_modules/counter_db.h"

// One instance of the module. Made by the host through the registered class
// "OpenFlow"; lives in DPDK memory.
class OpenFlow : public Module {
 public:
  // The class's commands, in the order in which they are registered.
  static const Commands cmds;

  // All fields zero; up to 16 workers may run the module at once.
  OpenFlow();
  // Releases the ACL database. Frees no flow store: that is DeInit's.
  ~OpenFlow() override;

  // Zero-filled DPDK memory on a cache line.
  static void* operator new(size_t size);
  static void operator delete(void* object);

  // The init command: gets or creates the ACL database and makes the 64 empty
  // flow stores. ENOMEM when a store cannot be had; std::runtime_error when its
  // hash table cannot. Control thread, before the module carries traffic.
  bess::pb::CommandResponse Init(const bess::pb::EmptyArg& arg);

  // Destroys the flow stores (waits for a grace period) and frees the
  // classifiers that the bound slots publish; the records stay in their slots.
  // Control thread, at most once, when no worker runs the module any more.
  void DeInit() override;

  // Command "updateFlows": adds, then deletes, in message order; then builds
  // and publishes the classifier of the table and family. Fails with -12 (no
  // memory) or -1 (no classifier); flows stay changed when only the build
  // fails, and the next successful update publishes them.
  bess::pb::CommandResponse updateFlows(
      const quil::pb::OpenFlowUpdateFlowsArg& arg);

  // Command "setAclIds": binds a table to two slots of the ACL database. A
  // table identifier of 32 or more is fatal. Slot numbers are not checked
  // here: whoever stands in front of the command does that.
  bess::pb::CommandResponse setAclIds(const quil::pb::OpenFlowAclArg& arg);

  // Command "getStats": replies with an OpenFlowGetStatsRespArg. Not a
  // snapshot: workers keep counting meanwhile.
  bess::pb::CommandResponse getStats(const quil::pb::OpenFlowGetStatsArg& arg);

  // Takes a batch of at most 32 packets through the tables. Any worker.
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;

  // --- translate/: messages into records -----------------------------------

  // Writes the match of `flow` into the zeroed rule record at `rule`, of the
  // type that `flowType` selects (1: of_flow_acl_rule_ipv6, else
  // of_flow_acl_rule). A match MAC or mask that is not 6 bytes long is fatal.
  void makeAclRule(quil::pb::OpenFlowType flowType,
                   const quil::pb::OpenFlowAddFlow& flow, void* rule);

  // Writes the action of `flow` into the zeroed record `action`.
  void makeAction(const quil::pb::OpenFlowAddFlow& flow, OfFlowAction* action);

  // Hangs a copy of `action`, in DPDK memory, on `userdata`. Without memory the
  // reference stays null, which is fatal for the first packet that matches.
  void makeAclUserdata(OfFlowAction* action,
                       QuilModules::KoAclUserdata* userdata);

  // --- tables/: flow stores and classifiers, control thread ----------------

  // Applies `arg` to `info` and publishes. Returns 0, -12 or -1.
  template <typename FLOW_TYPE>
  int processUpdateFlows(const quil::pb::OpenFlowUpdateFlowsArg& arg,
                         OpenFlowInfo<FLOW_TYPE>* info);

  // Inserts or replaces one flow; takes `entry`, which is zeroed.
  template <typename FLOW_TYPE>
  void addFlow(const quil::pb::OpenFlowAddFlow& flow,
               OpenFlowEntry<FLOW_TYPE>* entry, OpenFlowInfo<FLOW_TYPE>* info);

  // Removes one flow; an unknown identifier is only traced.
  template <typename FLOW_TYPE>
  void deleteFlow(const quil::pb::OpenFlowDeleteFlow& flow,
                  OpenFlowInfo<FLOW_TYPE>* info);

  // Returns an entry to DPDK memory; every stored flow's value-release hook.
  template <typename FLOW_TYPE>
  static void freeFlowEntry(OpenFlowEntry<FLOW_TYPE>* entry);

  // Builds the classifier of all flows of `info` and publishes it; an empty
  // table empties the slot. `rules` has room for numFlows records, `userdata`
  // is numFlows + 1 zeroed records and is taken over on success and for an
  // empty table. Returns 0 or -1.
  template <typename FLOW_TYPE>
  int programAcl(FLOW_TYPE* rules, QuilModules::KoAclUserdata* userdata,
                 OpenFlowInfo<FLOW_TYPE>* info);

  // Publishes `ctx` with its userdata in `slot` (null empties it) and retires
  // what the slot held. Always 0.
  int updateAclCtx(QuilModules::AclCtx* slot, rte_acl_ctx* ctx,
                   QuilModules::KoAclUserdata* userdata, uint32_t numUserdata);

  // --- datapath/: any worker ------------------------------------------------

  // One table's pass over tableBatches[tableId]. Go-to-table copies are
  // appended to the batches of later tables.
  void processTableBatch(Context* ctx, uint8_t tableId,
                         bess::PacketBatch** tableBatches);

 private:
  friend struct OpenFlowPeer;  // tests look inside through it

  // Finds each packet's action, one of priority 0 for none, and asks for what
  // counting it in `flowCounters` (null: nothing) will touch. Non-zero: the
  // batch must be dropped.
  int lookupFlowAcl(uint8_t tableId, bess::PacketBatch** tableBatches,
                    const QuilModules::WorkerCounters* flowCounters,
                    const OfFlowAction** actions);

  // Hands each packet to the batch of the table that it starts at.
  void sortByStartTable(Context* ctx, const bess::PacketBatch& batch,
                        bess::PacketBatch** tableBatches);

  // Sends the copies that `action` asks for; the packet itself stays.
  void outputPacket(Context* ctx, uint8_t tableId, bess::Packet* packet,
                    const OfFlowAction& action,
                    bess::PacketBatch** tableBatches);
  inline void outputPorts(Context* ctx, const bess::Packet* packet,
                          const OfActionValues& values, uint32_t skippedGate);
  [[gnu::noinline]] void outputPortList(Context* ctx,
                                        const bess::Packet* packet,
                                        const OfActionValues& values,
                                        uint32_t skippedGate);
  inline void emitCopy(Context* ctx, const bess::Packet* packet, uint16_t gate);
  void outputController(Context* ctx, bess::Packet* packet,
                        const OfFlowAction& action, uint16_t inPortGate);
  void gotoTable(Context* ctx, uint8_t tableId, bess::Packet* packet,
                 uint8_t nextTable, bess::PacketBatch** tableBatches);

  // Copies every stored rule into `rules`, numbered from 1 in walk order, and a
  // copy of its action into `userdata`. More flows than info->numFlows is
  // fatal.
  template <typename FLOW_TYPE>
  void collectRules(FLOW_TYPE* rules, QuilModules::KoAclUserdata* userdata,
                    OpenFlowInfo<FLOW_TYPE>* info);

  void destroyStoresBelow(uint32_t tableId);
  const rte_acl_config& aclConfigOf(quil::pb::OpenFlowType flowType) const;

  Mio::Ptr<QuilModules::AclDb> aclDb_;
  rte_acl_config aclConfig_ = {};
  rte_acl_config ipv6AclConfig_ = {};
  OpenFlowTable tables_[kNumTables] = {};
};
