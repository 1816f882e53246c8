// SPDX-License-Identifier: BSD-3-Clause
//
// What workers write for every packet or batch lies on cache lines that no
// other worker touches: two workers then cost each other nothing.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "gate.h"
#include "internal/worker_pauser.h"
#include "internal/worker_thread.h"
#include "module.h"
#include "packet.h"
#include "ports/port_stats.h"
#include "task.h"

namespace {

constexpr size_t kLine = 64;

// Whole lines, wherever the object is put.
template <typename T>
constexpr bool kOwnsItsLines = alignof(T) % kLine == 0 &&
                               sizeof(T) % kLine == 0;

TEST(CacheLines, RecordsOfOneWorkerFillWholeLines) {
  EXPECT_TRUE(kOwnsItsLines<bess::OGate::Pending>);
  EXPECT_TRUE(kOwnsItsLines<bess::PortCounters>);
  EXPECT_TRUE(kOwnsItsLines<bess::internal::AtomicWorkerState>);
  EXPECT_TRUE(kOwnsItsLines<bess::internal::WorkerThread>);
  EXPECT_TRUE(kOwnsItsLines<Task>);
  EXPECT_TRUE(kOwnsItsLines<bess::Packet>);
}

// What all workers read at a gate is not on a line that one of them writes.
TEST(CacheLines, GatesKeepWhatIsWrittenApart) {
  EXPECT_TRUE(kOwnsItsLines<bess::OGate>);
  auto gate = std::make_unique<bess::OGate>(nullptr, 1, nullptr);
  const auto line = [](const void* at) {
    return reinterpret_cast<uintptr_t>(at) / kLine;
  };
  for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
    const bess::OGate::Pending* slot = gate->pending(wid);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(slot) % kLine, 0u) << wid;
    EXPECT_EQ(line(&slot->packets), line(slot)) << wid;
    EXPECT_EQ(line(slot), line(gate->pending(0)) + static_cast<size_t>(wid));
  }
  EXPECT_LT(line(gate.get()), line(gate->pending(0)));
}

// Tasks come from the ordinary heap, next to anything.
TEST(CacheLines, TasksStartOnALine) {
  Module module;
  for (int i = 0; i < 8; i++) {
    const auto before = std::make_unique<char[]>(24);
    const auto task = std::make_unique<Task>(&module, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(task.get()) % kLine, 0u);
  }
}

}  // namespace
