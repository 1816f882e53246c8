// SPDX-License-Identifier: BSD-3-Clause
//
// Which tasks a worker runs while modules come and go, and when it may sleep.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "probe.h"
#include "worker.h"
#include "worker_fixture.h"

namespace {

using bess::PacketBatch;

// How often this thread has gone to sleep by itself.
long Sleeps() {
  rusage usage;
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

class WorkerTasksTest : public HostTest {
 protected:
  // A module whose task has run on the worker more than a few times since the
  // workers were resumed: so would any other task have.
  class Witness {
   public:
    Witness(WorkerTasksTest* test, int wid)
        : probe_(test->MakeProbe("witness" + std::to_string(wid))) {
      probe_->on_run = [this](Context*, PacketBatch*) { runs_++; };
      EXPECT_EQ(Worker::AttachTasks(probe_, wid), "");
    }
    uint64_t runs() const { return runs_; }
    bool RunsOn() const {
      const uint64_t before = runs_;
      return Eventually([&] { return runs_ > before + 10; });
    }

   private:
    Probe* probe_;
    std::atomic<uint64_t> runs_ = 0;
  };

  // A module on a new worker 0 that has emitted packets to `sink` beside its
  // runs, so that nobody has handed them on.
  Probe* ProbeWithPackets(int packets, const Sink* sink) {
    EXPECT_EQ(Worker::Add(0), "");
    Probe* probe = MakeProbe("probe");
    Connect(probe, 0, sink, 0);
    EXPECT_EQ(Worker::AttachTasks(probe, 0), "");
    Context ctx;
    ctx.task = probe->task();
    const size_t before = pool_->available();
    for (int i = 0; i < packets; i++) {
      probe->EmitPacket(&ctx, MakePacket("x"), 0);
    }
    EXPECT_EQ(pool_->available(), before - packets);
    return probe;
  }
};

TEST_F(WorkerTasksTest, ATaskMovesToItsNewWorker) {
  ASSERT_EQ(Worker::Add(0), "");
  ASSERT_EQ(Worker::Add(1), "");
  Probe* probe = MakeProbe("probe");
  std::atomic<int> runs[2] = {};
  const Witness old_worker(this, 0);
  const StopWorkers stop;
  probe->on_run = [&](Context* ctx, PacketBatch*) { runs[ctx->wid]++; };
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  ASSERT_EQ(Worker::AttachTasks(probe, 1), "");
  EXPECT_FALSE(probe->is_active_worker(0));
  EXPECT_TRUE(probe->is_active_worker(1));
  ASSERT_EQ(Worker::ResumeAll(), "");
  EXPECT_TRUE(old_worker.RunsOn());
  EXPECT_TRUE(Eventually([&] { return runs[1] > 10; }));
  EXPECT_EQ(runs[0], 0);
}

TEST_F(WorkerTasksTest, ResumingWorksOutAnewWhoRunsWhat) {
  ASSERT_EQ(Worker::Add(0), "");
  Probe* source = MakeProbe("source");
  Probe* queue = MakeProbe("queue");
  Probe* end = MakeProbe("end");
  Connect(source, 0, queue, 0);
  Connect(queue, 0, end, 0);
  ASSERT_EQ(Worker::AttachTasks(source, 0), "");
  EXPECT_TRUE(end->is_active_worker(0));
  queue->PropagateWorkers(false);  // as a command of its own may do
  ASSERT_EQ(Worker::ResumeAll(), "");
  EXPECT_TRUE(queue->is_active_worker(0));
  EXPECT_FALSE(end->is_active_worker(0));
}

TEST_F(WorkerTasksTest, DetachingFreesWhatWaitsInTheTask) {
  const Sink* sink = MakeSink("sink");
  const size_t before = pool_->available();
  Probe* probe = ProbeWithPackets(50, sink);
  Worker::DetachTasks(probe);
  EXPECT_EQ(probe->task()->wid(), -1);
  EXPECT_EQ(pool_->available(), before);
  EXPECT_EQ(sink->count(), 0u);
}

TEST_F(WorkerTasksTest, StoppingFreesWhatWaitsInItsTasks) {
  const Sink* sink = MakeSink("sink");
  const size_t before = pool_->available();
  ProbeWithPackets(50, sink);
  EXPECT_EQ(Worker::Stop(0), "");
  EXPECT_EQ(pool_->available(), before);
  EXPECT_EQ(sink->count(), 0u);
}

TEST_F(WorkerTasksTest, ATaskAttachedAgainRunsOnceARound) {
  ASSERT_EQ(Worker::Add(0), "");
  Probe* probe = MakeProbe("probe");
  const Witness witness(this, 0);
  uint64_t runs = 0;
  const StopWorkers stop;
  probe->on_run = [&](Context*, PacketBatch*) { runs++; };
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  EXPECT_TRUE(witness.RunsOn());
  Worker::PauseAll();
  // A pause lets the round end.
  EXPECT_EQ(runs, witness.runs());
}

TEST_F(WorkerTasksTest, AnAttachThatIsRefusedLeavesTheTaskWhereItWas) {
  ASSERT_EQ(Worker::Add(0), "");
  ASSERT_EQ(Worker::Add(1), "");
  Probe* one = MakeProbe("one");
  Probe* two = MakeProbe("two");
  Probe* shared = MakeProbe("shared");
  Connect(one, 0, shared, 0);
  Connect(two, 0, shared, 0);
  std::atomic<int> runs[2] = {};
  const Witness refused_worker(this, 1);
  const StopWorkers stop;
  two->on_run = [&](Context* ctx, PacketBatch*) { runs[ctx->wid]++; };
  ASSERT_EQ(Worker::AttachTasks(one, 0), "");
  ASSERT_EQ(Worker::AttachTasks(two, 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  EXPECT_NE(Worker::AttachTasks(two, 1), "");
  EXPECT_TRUE(refused_worker.RunsOn());
  EXPECT_TRUE(Eventually([&] { return runs[0] > 10; }));
  EXPECT_EQ(runs[1], 0);
}

TEST_F(WorkerTasksTest, ADestroyedModulesTaskRunsNoMore) {
  ASSERT_EQ(Worker::Add(0), "");
  const Witness witness(this, 0);
  const StopWorkers stop;
  ASSERT_EQ(Worker::AttachTasks(MakeProbe("probe"), 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  ASSERT_TRUE(witness.RunsOn());
  Worker::PauseAll();
  ASSERT_EQ(bess::DestroyModule("probe").error().errmsg(), "");
  const uint64_t others = Worker::Runs(0) - witness.runs();
  ASSERT_EQ(Worker::ResumeAll(), "");
  EXPECT_TRUE(witness.RunsOn());
  Worker::PauseAll();
  EXPECT_EQ(Worker::Runs(0) - witness.runs(), others);
}

TEST_F(WorkerTasksTest, DestroyingFreesWhatTheTaskHasQueued) {
  // Before the module is gone: freeing hands packets on through its gates.
  const Sink* sink = MakeSink("sink");
  const size_t before = pool_->available();
  ProbeWithPackets(50, sink);
  ASSERT_EQ(bess::DestroyModule("probe").error().errmsg(), "");
  EXPECT_EQ(pool_->available(), before);
  EXPECT_EQ(sink->count(), 0u);
}

TEST_F(WorkerTasksTest, AllTasksOfAModuleGoTogether) {
  for (int wid = 0; wid < 3; wid++) {
    ASSERT_EQ(Worker::Add(wid), "");
  }
  Probe* probe = MakeProbe("probe");
  ASSERT_EQ(probe->RegisterTask(nullptr), 1);
  const auto wids = [&] {
    return std::vector<int>{probe->tasks()[0]->wid(), probe->tasks()[1]->wid()};
  };
  EXPECT_EQ(wids(), (std::vector<int>{-1, -1}));
  ASSERT_EQ(Worker::AttachTasks(probe, 1), "");
  EXPECT_EQ(wids(), (std::vector<int>{1, 1}));
  ASSERT_EQ(Worker::AttachTasks(probe, 2), "");
  EXPECT_EQ(wids(), (std::vector<int>{2, 2}));
  EXPECT_EQ(Worker::Stop(1), "");
  EXPECT_EQ(wids(), (std::vector<int>{2, 2}));
  EXPECT_EQ(Worker::Stop(2), "");
  EXPECT_EQ(wids(), (std::vector<int>{-1, -1}));
  ASSERT_EQ(Worker::Add(15), "");
  ASSERT_EQ(Worker::AttachTasks(probe, 15), "");
  EXPECT_EQ(wids(), (std::vector<int>{15, 15}));
  EXPECT_TRUE(probe->is_active_worker(15));
  Worker::DetachTasks(probe);
  EXPECT_EQ(wids(), (std::vector<int>{-1, -1}));
  EXPECT_EQ(probe->num_active_workers(), 0);
}

// The rest of a round may be idle: one busy task keeps its worker awake.
TEST_F(WorkerTasksTest, AnIdleTaskBehindABusyOneLetsNobodySleep) {
  constexpr uint64_t kFirst = 20'000;  // far beyond the first sleep of an idle
  constexpr uint64_t kLast = kFirst + 200;
  ASSERT_EQ(Worker::Add(0), "");
  Probe* busy = MakeProbe("busy");
  Module* idle = bess::CreateModule("Source", "idle").module;
  uint64_t runs = 0;
  long slept = 0;
  std::atomic<bool> done = false;
  busy->on_run = [&](Context*, PacketBatch*) {
    runs++;
    if (runs == kFirst) {
      slept = -Sleeps();
    } else if (runs == kLast) {
      slept += Sleeps();
      done = true;
    }
  };
  const StopWorkers stop;
  Worker::SetLongestIdleSleep(std::chrono::microseconds(50));
  ASSERT_EQ(Worker::AttachTasks(busy, 0), "");
  ASSERT_EQ(Worker::AttachTasks(idle, 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  EXPECT_TRUE(Eventually([&] { return done.load(); }));
  Worker::SetLongestIdleSleep(Worker::kDefaultIdleSleep);
  // Asleep in each round it would be 200.
  EXPECT_LT(slept, 20);
}

// Whoever is refused to resume must not keep everybody else out for ever.
TEST_F(WorkerTasksTest, AChangeThatLeavesWorkersPausedIsOver) {
  ASSERT_EQ(Worker::Add(0), "");
  Probe* probe = MakeProbe("probe");
  Probe* other = MakeProbe("other");
  MakeSink("sink");
  Connect(other, 0, probe, 0);
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  probe->AllowWorkers(0, 0);
  EXPECT_EQ(bess::DisconnectModules("other", 0).error().errmsg(), "");
  EXPECT_FALSE(Worker::IsRunning(0));
  int runs = 0;
  const StopWorkers stop;
  other->on_run = [&](Context*, PacketBatch*) { runs++; };
  bess::InlineWorker(1).Run(other->task());
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(bess::ConnectModules("other", 0, "sink", 0).error().errmsg(), "");
  EXPECT_EQ(Worker::ResumeAll(),
            "module 'probe' is run by 1 workers but allows at most 0");
  probe->AllowWorkers(1, 1);
  EXPECT_EQ(Worker::ResumeAll(), "");
  EXPECT_TRUE(Worker::IsRunning(0));
}

}  // namespace
