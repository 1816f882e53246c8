// SPDX-License-Identifier: BSD-3-Clause
//
// A module between a pool of prepared frames and a sink that frees, for
// benchmarks that count processor cycles.
#pragma once

#include <rte_acl.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "inline_worker.h"
#include "modules/openflow/openflow.h"
#include "openflow.pb.h"
#include "packet_pool.h"

namespace bench {

inline constexpr int kBurst = 32;
inline constexpr uint16_t kOutputGate = 2;

// A 64-byte UDP frame over IPv4 or IPv6.
using FrameBytes = std::array<uint8_t, 64>;
FrameBytes ipv4Frame(uint32_t dst, uint16_t dstPort);
FrameBytes ipv6Frame(uint32_t dstLow, uint16_t dstPort);

// Flow i matches destination 10.0.0.0/8 by a prefix of 24 bits and a port, both
// taken from i.
quil::pb::OpenFlowAddFlow prefixPortFlow(uint32_t i);
quil::pb::OpenFlowAddFlow prefixPortFlow6(uint32_t i);
uint32_t flowDst(uint32_t i);
uint16_t flowPort(uint32_t i);

// One a process. The thread that makes it is worker 0; there may be others.
class Rig {
 public:
  Rig();
  ~Rig();

  static Rig& instance();

  OpenFlow& module() { return *module_; }
  Module& sink() { return *sink_; }  // which frees what enters
  Task* task() { return task_; }
  Context* context() { return worker_.context(); }
  bess::InlineWorker& worker() { return worker_; }
  bess::PacketPool& pool() { return pool_; }

  void setFlows(uint32_t table, bool ipv6,
                const std::vector<quil::pb::OpenFlowAddFlow>& flows);
  void bind(uint32_t table);

  // Fills `batch` with the next 32 of `frames`.
  void fill(const std::vector<FrameBytes>& frames, bess::PacketBatch* batch);

  // Cycles that the module takes for the batch, which it frees; what it emits
  // is freed behind it.
  uint64_t process(bess::PacketBatch* batch);

  // The classifier that a table's slot publishes; null if none.
  static const rte_acl_ctx* classifier(uint32_t slot);

 private:
  std::string name_;
  OpenFlow* module_;
  Module* sink_;
  bess::InlineWorker worker_;
  bess::PacketPool pool_;
  Task* task_;
  size_t next_ = 0;
};

}  // namespace bench
