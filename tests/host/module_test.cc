// SPDX-License-Identifier: BSD-3-Clause
#include "module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "probe.h"

namespace {

using testing::ElementsAre;

static_assert(alignof(Module) == 64);
static_assert(sizeof(gate_idx_t) == 2);
static_assert(MAX_GATES == 8192 && bess::MAX_GATES == 8192);
static_assert(Worker::kMaxWorkers == 16 && MAX_WORKERS == 16);

// A class with nothing of its own.
class Plain final : public Module {
 public:
  using Module::is_task_;
  using Module::max_allowed_workers_;
  using Module::min_allowed_workers_;
  using Module::propagate_workers_;
};

TEST(ModuleTest, StartsWithTheDocumentedDefaults) {
  Plain plain;
  EXPECT_EQ(plain.min_allowed_workers_, 1);
  EXPECT_EQ(plain.max_allowed_workers_, 1);
  EXPECT_FALSE(plain.is_task_);
  EXPECT_TRUE(plain.propagate_workers_);
  EXPECT_EQ(plain.GetDesc(), "");
  EXPECT_EQ(plain.OnEvent(bess::Event::PreResume), -95);
  EXPECT_EQ(plain.Init(bess::pb::EmptyArg()).error().code(), 0);
  EXPECT_TRUE(plain.igates().empty());
  EXPECT_TRUE(plain.ogates().empty());
  EXPECT_EQ(plain.name(), "");
  plain.DeInit();
}

// The place of a virtual function in the table, counted from the first of the
// two destructors. The C++ ABI keeps its byte offset, plus one, in a pointer to
// the member.
template <typename F>
int Slot(F fn) {
  ptrdiff_t offset;
  memcpy(&offset, &fn, sizeof(offset));
  return static_cast<int>((offset - 1) / static_cast<ptrdiff_t>(sizeof(void*)));
}

TEST(ModuleTest, VirtualFunctionsAreInTheirSlots) {
  EXPECT_EQ(Slot(&Module::DeInit), 2);
  EXPECT_EQ(Slot(&Module::RunTask), 3);
  EXPECT_EQ(Slot(&Module::ProcessBatch), 4);
  EXPECT_EQ(Slot(&Module::OnEvent), 5);
  EXPECT_EQ(Slot(&Module::GetDesc), 6);
  EXPECT_EQ(Slot(&Module::AddActiveWorker), 7);
  EXPECT_EQ(Slot(&Module::CheckModuleConstraints), 8);
}

TEST(ModuleTest, RegisterTaskMakesItATask) {
  Plain plain;
  int arg = 0;
  EXPECT_EQ(plain.RegisterTask(&arg), 0);
  EXPECT_EQ(plain.RegisterTask(nullptr), 1);
  EXPECT_TRUE(plain.is_task_);
  ASSERT_EQ(plain.tasks().size(), 2u);
  EXPECT_EQ(plain.tasks()[0]->arg(), &arg);
  EXPECT_EQ(plain.tasks()[0]->module(), &plain);
}

TEST(ModuleTest, DefaultRunTaskHasNothingToDo) {
  Plain plain;
  Context ctx;
  bess::PacketBatch batch;
  batch.clear();
  const task_result result = plain.RunTask(&ctx, &batch, nullptr);
  EXPECT_TRUE(result.block);
  EXPECT_EQ(result.packets, 0u);
  EXPECT_EQ(result.bits, 0u);
}

class ActiveWorkerTest : public HostTest {
 protected:
  static std::vector<int> Workers(const Module* module) {
    std::vector<int> wids;
    for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
      if (module->is_active_worker(wid)) {
        wids.push_back(wid);
      }
    }
    return wids;
  }
};

TEST_F(ActiveWorkerTest, SpreadsDownstream) {
  Probe* source = MakeProbe("source");
  Probe* middle = MakeProbe("middle");
  Probe* end = MakeProbe("end");
  Probe* aside = MakeProbe("aside");
  Connect(source, 0, middle, 0);
  Connect(middle, 5, end, 0);
  Connect(aside, 0, end, 1);
  source->AddActiveWorker(2, source->task());
  EXPECT_THAT(Workers(source), ElementsAre(2));
  EXPECT_THAT(Workers(middle), ElementsAre(2));
  EXPECT_THAT(Workers(end), ElementsAre(2));
  EXPECT_THAT(Workers(aside), ElementsAre());
  aside->AddActiveWorker(7, aside->task());
  EXPECT_THAT(Workers(end), ElementsAre(2, 7));
  EXPECT_EQ(end->num_active_workers(), 2);
  end->ResetActiveWorkers();
  EXPECT_EQ(end->num_active_workers(), 0);
}

TEST_F(ActiveWorkerTest, StopsAtModulesThatDoNotPropagate) {
  Probe* source = MakeProbe("source");
  Probe* queue = MakeProbe("queue");
  Probe* end = MakeProbe("end");
  Connect(source, 0, queue, 0);
  Connect(queue, 0, end, 0);
  queue->PropagateWorkers(false);
  source->AddActiveWorker(1, source->task());
  EXPECT_THAT(Workers(queue), ElementsAre(1));
  EXPECT_THAT(Workers(end), ElementsAre());
  // Its own task goes on from it.
  queue->AddActiveWorker(4, queue->task());
  EXPECT_THAT(Workers(queue), ElementsAre(1, 4));
  EXPECT_THAT(Workers(end), ElementsAre(4));
}

TEST_F(ActiveWorkerTest, EndsInLoops) {
  Probe* a = MakeProbe("a");
  Probe* b = MakeProbe("b");
  Connect(a, 0, b, 0);
  Connect(b, 0, a, 0);
  a->AddActiveWorker(0, a->task());
  EXPECT_THAT(Workers(a), ElementsAre(0));
  EXPECT_THAT(Workers(b), ElementsAre(0));
}

TEST_F(ActiveWorkerTest, ConstraintsCompareTheNumber) {
  Probe* probe = MakeProbe("probe");
  EXPECT_EQ(probe->CheckModuleConstraints(), CHECK_NONFATAL_ERROR);
  probe->AddActiveWorker(0, probe->task());
  EXPECT_EQ(probe->CheckModuleConstraints(), CHECK_OK);
  Task other(probe, nullptr);
  probe->AddActiveWorker(1, &other);
  EXPECT_EQ(probe->CheckModuleConstraints(), CHECK_FATAL_ERROR);
  probe->AllowWorkers(1, 2);
  EXPECT_EQ(probe->CheckModuleConstraints(), CHECK_OK);
  probe->AllowWorkers(3, 4);
  EXPECT_EQ(probe->CheckModuleConstraints(), CHECK_NONFATAL_ERROR);
}

}  // namespace
