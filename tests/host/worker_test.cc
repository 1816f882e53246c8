// SPDX-License-Identifier: BSD-3-Clause
#include "worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <rte_lcore.h>
#include <sched.h>
#include <sys/prctl.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "modules/source.h"
#include "probe.h"
#include "worker_fixture.h"

namespace {

using bess::PacketBatch;
using testing::ElementsAre;

int AnyCore() {
  cpu_set_t cpus;
  sched_getaffinity(0, sizeof(cpus), &cpus);
  for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
    if (CPU_ISSET(cpu, &cpus)) {
      return cpu;
    }
  }
  return -1;
}

// As the kernel writes it: 0-3,8.
std::string AllowedCores() {
  constexpr char kName[] = "Cpus_allowed_list:\t";
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(kName)) {
      return line.substr(strlen(kName));
    }
  }
  return "nothing";
}

class WorkerTest : public HostTest {};

TEST_F(WorkerTest, StartsPaused) {
  EXPECT_EQ(Worker::Add(2), "");
  EXPECT_TRUE(Worker::Exists(2));
  EXPECT_FALSE(Worker::IsRunning(2));
  EXPECT_THAT(Worker::List(), ElementsAre(2));
  Probe* probe = MakeProbe("probe");
  EXPECT_EQ(Worker::AttachTasks(probe, 2), "");
  EXPECT_EQ(probe->task()->wid(), 2);
  EXPECT_TRUE(probe->is_active_worker(2));
  EXPECT_EQ(Worker::Runs(2), 0u);
  EXPECT_EQ(Worker::ResumeAll(), "");
  EXPECT_TRUE(Worker::IsRunning(2));
  EXPECT_TRUE(Eventually([] { return Worker::Runs(2) > 10; }));
  EXPECT_EQ(Worker::Stop(2), "");
  EXPECT_FALSE(Worker::Exists(2));
  EXPECT_EQ(probe->task()->wid(), -1);
  EXPECT_FALSE(probe->is_active_worker(2));
}

TEST_F(WorkerTest, RefusesWhatCannotBe) {
  EXPECT_EQ(Worker::Add(16), "worker 16: must be below 16");
  EXPECT_EQ(Worker::Add(-1), "worker -1: must be below 16");
  EXPECT_EQ(Worker::Add(0, 1000000), "worker 0: there is no core 1000000");
  EXPECT_EQ(Worker::Add(0, CPU_SETSIZE), "worker 0: there is no core 1024");
  EXPECT_EQ(Worker::Add(0, 1023),
            "worker 0: cannot be pinned to core 1023: Invalid argument; it may "
            "run on " +
                AllowedCores());
  EXPECT_FALSE(Worker::Exists(0));
  for (const int wid : {-1, 0, 15, 16}) {
    EXPECT_FALSE(Worker::Exists(wid));
    EXPECT_FALSE(Worker::IsRunning(wid));
    EXPECT_EQ(Worker::Runs(wid), 0u);
  }
  EXPECT_EQ(Worker::Add(0), "");
  EXPECT_EQ(Worker::Add(0), "worker 0 exists already");
  EXPECT_EQ(Worker::Stop(1), "there is no worker 1");
  EXPECT_EQ(Worker::Stop(99), "there is no worker 99");
  EXPECT_EQ(Worker::AttachTasks(MakeProbe("probe"), 1), "there is no worker 1");
  EXPECT_EQ(Worker::AttachTasks(MakeSink("sink"), 0),
            "module 'sink' has no task");
}

TEST_F(WorkerTest, RunsItsTasksWhereItSays) {
  const int core = AnyCore();
  ASSERT_EQ(Worker::Add(15, core), "");
  Probe* probe = MakeProbe("probe");
  std::atomic<bool> done = false;
  unsigned lcore = LCORE_ID_ANY;
  int wid = -1;
  int cpus = 0;
  int cpu = -1;
  bool online = false;
  char name[16] = "";
  int slack = 0;
  const StopWorkers stop;
  probe->on_run = [&](Context* ctx, PacketBatch*) {
    if (done) {
      return;
    }
    lcore = rte_lcore_id();
    wid = ctx->wid;
    cpu_set_t set;
    sched_getaffinity(0, sizeof(set), &set);
    cpus = CPU_COUNT(&set);
    cpu = sched_getcpu();
    online = rcu_read_ongoing();
    pthread_getname_np(pthread_self(), name, sizeof(name));
    slack = prctl(PR_GET_TIMERSLACK);
    done = true;
  };
  ASSERT_EQ(Worker::AttachTasks(probe, 15), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  ASSERT_TRUE(Eventually([&] { return done.load(); }));
  Worker::PauseAll();
  EXPECT_NE(lcore, LCORE_ID_ANY);
  EXPECT_EQ(wid, 15);
  EXPECT_EQ(cpus, 1);
  EXPECT_EQ(cpu, core);
  EXPECT_TRUE(online);
  EXPECT_STREQ(name, "worker15");
  EXPECT_EQ(slack, 1000) << "in nanoseconds, for short sleeps";
}

// Of which DPDK has 128.
TEST_F(WorkerTest, GivesItsLcoreBack) {
  for (int i = 0; i < RTE_MAX_LCORE + 1; i++) {
    ASSERT_EQ(Worker::Add(0), "") << i;
    ASSERT_EQ(Worker::Stop(0), "") << i;
  }
}

TEST_F(WorkerTest, PauseWaitsForTheTaskRun) {
  ASSERT_EQ(Worker::Add(0), "");
  Probe* probe = MakeProbe("probe");
  std::atomic<bool> inside = false;
  const StopWorkers stop;
  probe->on_run = [&](Context*, PacketBatch*) {
    inside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    inside = false;
  };
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  for (int i = 0; i < 20; i++) {
    ASSERT_EQ(Worker::ResumeAll(), "");
    ASSERT_TRUE(Eventually([&] { return inside.load(); }));
    Worker::PauseAll();
    EXPECT_FALSE(inside);
    const uint64_t runs = Worker::Runs(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    EXPECT_EQ(Worker::Runs(0), runs);
    EXPECT_FALSE(Worker::IsRunning(0));
  }
}

// One that waits for a grace period is waited for, and not by a reader that
// holds it up.
TEST_F(WorkerTest, PausingHoldsUpNoGracePeriod) {
  ASSERT_EQ(Worker::Add(0), "");
  Probe* probe = MakeProbe("probe");
  std::atomic<bool> inside = false;
  std::atomic<bool> pausing = false;
  std::atomic<bool> elapsed = false;
  const StopWorkers stop;
  probe->on_run = [&](Context*, PacketBatch*) {
    inside = true;
    while (!pausing) {
      std::this_thread::yield();
    }
    // Long enough for the command thread to wait for this worker.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    synchronize_rcu();
    elapsed = true;
  };
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  ASSERT_TRUE(Eventually([&] { return inside.load(); }));
  pausing = true;
  Worker::PauseAll();
  EXPECT_TRUE(elapsed);
}

TEST_F(WorkerTest, NeverHoldsUpAGracePeriod) {
  for (int wid = 0; wid < 4; wid++) {
    ASSERT_EQ(Worker::Add(wid), "");
  }
  synchronize_rcu();  // paused, without a task
  Source* idle =
      static_cast<Source*>(bess::CreateModule("Source", "idle").module);
  Probe* busy = MakeProbe("busy");
  ASSERT_EQ(Worker::AttachTasks(idle, 0), "");
  ASSERT_EQ(Worker::AttachTasks(busy, 1), "");
  synchronize_rcu();  // paused, with one
  ASSERT_EQ(Worker::ResumeAll(), "");
  for (int i = 0; i < 50; i++) {
    synchronize_rcu();  // blocked, busy, and running without a task
  }
  Worker::PauseAll();
  synchronize_rcu();
}

TEST_F(WorkerTest, IsQuiescentBetweenRunsAndNeverInside) {
  // A grace period that starts inside a run must wait for its end.
  ASSERT_EQ(Worker::Add(0), "");
  Probe* probe = MakeProbe("probe");
  std::atomic<bool> inside = false;
  std::atomic<bool> release = false;
  const StopWorkers stop;
  probe->on_run = [&](Context*, PacketBatch*) {
    if (!release) {
      inside = true;
      while (!release) {
        std::this_thread::yield();
      }
    }
  };
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  ASSERT_TRUE(Eventually([&] { return inside.load(); }));
  std::atomic<bool> elapsed = false;
  std::thread updater([&] {
    synchronize_rcu();
    elapsed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(elapsed);
  release = true;
  updater.join();
  EXPECT_TRUE(elapsed);
}

TEST_F(WorkerTest, UnsafeCommandsWaitForAPause) {
  ASSERT_EQ(Worker::Add(0), "");
  Probe* source = MakeProbe("source");
  Probe* behind = MakeProbe("behind");
  MakeProbe("elsewhere");
  Connect(source, 0, behind, 0);
  ASSERT_EQ(Worker::AttachTasks(source, 0), "");
  EXPECT_EQ(bess::RunModuleCommand("behind", "unsafe").error().code(), 0);
  ASSERT_EQ(Worker::ResumeAll(), "");
  for (const char* name : {"source", "behind"}) {
    const auto response = bess::RunModuleCommand(name, "unsafe");
    EXPECT_EQ(response.error().code(), EBUSY);
    EXPECT_EQ(response.error().errmsg(),
              std::string("command 'unsafe' is not thread-safe and a worker "
                          "runs module '") +
                  name + "'");
    EXPECT_EQ(bess::RunModuleCommand(name, "safe").error().code(), 0);
  }
  EXPECT_EQ(bess::RunModuleCommand("elsewhere", "unsafe").error().code(), 0);
  Worker::PauseAll();
  EXPECT_EQ(bess::RunModuleCommand("behind", "unsafe").error().code(), 0);
}

TEST_F(WorkerTest, TooManyWorkersForAModuleAreRefused) {
  ASSERT_EQ(Worker::Add(0), "");
  ASSERT_EQ(Worker::Add(1), "");
  Probe* one = MakeProbe("one");
  Probe* two = MakeProbe("two");
  Probe* shared = MakeProbe("shared");
  Connect(one, 0, shared, 0);
  Connect(two, 0, shared, 0);
  ASSERT_EQ(Worker::AttachTasks(one, 0), "");
  ASSERT_EQ(Worker::AttachTasks(two, 1), "");
  const std::string refusal =
      "module 'shared' is run by 2 workers but allows at most 1";
  EXPECT_EQ(Worker::ResumeAll(), refusal);
  EXPECT_FALSE(Worker::IsRunning(0));
  Probe* also = MakeProbe("also");
  Connect(one, 1, also, 0);
  Connect(two, 1, also, 0);
  EXPECT_EQ(
      Worker::ResumeAll(),
      refusal + "; module 'also' is run by 2 workers but allows at most 1");
  bess::DestroyModule("also");

  // What would break the rule while they run is undone.
  bess::DisconnectModules("two", 0);
  ASSERT_EQ(Worker::ResumeAll(), "");
  const auto response = bess::ConnectModules("two", 0, "shared", 1);
  EXPECT_EQ(response.error().code(), EINVAL);
  EXPECT_EQ(response.error().errmsg(), refusal);
  EXPECT_EQ(two->ogates()[0], nullptr);
  EXPECT_TRUE(Worker::IsRunning(0));
  EXPECT_TRUE(Worker::IsRunning(1));

  shared->AllowWorkers(1, 16);
  EXPECT_EQ(bess::ConnectModules("two", 0, "shared", 1).error().code(), 0);
  EXPECT_EQ(shared->num_active_workers(), 2);
}

TEST_F(WorkerTest, AttachingThatBreaksARuleIsUndone) {
  ASSERT_EQ(Worker::Add(0), "");
  ASSERT_EQ(Worker::Add(1), "");
  Probe* one = MakeProbe("one");
  Probe* two = MakeProbe("two");
  Probe* shared = MakeProbe("shared");
  Connect(one, 0, shared, 0);
  Connect(two, 0, shared, 0);
  ASSERT_EQ(Worker::AttachTasks(one, 0), "");
  ASSERT_EQ(Worker::AttachTasks(two, 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  EXPECT_EQ(Worker::AttachTasks(two, 1),
            "module 'shared' is run by 2 workers but allows at most 1");
  EXPECT_EQ(two->task()->wid(), 0);
  EXPECT_TRUE(Worker::IsRunning(0));
  EXPECT_EQ(shared->num_active_workers(), 1);
}

TEST_F(WorkerTest, TellsModulesBeforeTheyResume) {
  ASSERT_EQ(Worker::Add(0), "");
  MakeProbe("a");
  Probe::log().clear();
  ASSERT_EQ(Worker::ResumeAll(), "");
  EXPECT_THAT(Probe::log(), ElementsAre("PreResume a"));
  // Also those that a change of the graph has paused.
  Probe* b = MakeProbe("b");
  Probe::log().clear();
  Connect(b, 0, b, 0);
  EXPECT_THAT(Probe::log(), ElementsAre("PreResume a", "PreResume b"));
  Worker::PauseAll();
  Probe::log().clear();
  Connect(b, 1, b, 1);
  EXPECT_THAT(Probe::log(), ElementsAre()) << "nobody resumes";
}

TEST_F(WorkerTest, SeveralWorkersLoseNothing) {
  constexpr int kWorkers = 3;
  constexpr int kPackets = 5000;
  Sink* sink = MakeSink("sink");
  std::vector<Source*> sources;
  for (int wid = 0; wid < kWorkers; wid++) {
    ASSERT_EQ(Worker::Add(wid), "");
    sources.push_back(static_cast<Source*>(
        bess::CreateModule("Source", "source" + std::to_string(wid)).module));
    Connect(sources.back(), 0, sink, 0);
    ASSERT_EQ(Worker::AttachTasks(sources.back(), wid), "");
  }
  ASSERT_EQ(Worker::ResumeAll(), "");
  for (int i = 0; i < kPackets; i++) {
    for (Source* source : sources) {
      ASSERT_TRUE(source->Push(MakePacket(std::to_string(i))));
    }
  }
  EXPECT_TRUE(Eventually([&] { return sink->count() == kWorkers * kPackets; }));
  Worker::StopAll();
  std::vector<int> next(kWorkers, 0);
  for (const auto& one : sink->Take()) {
    ASSERT_EQ(one.bytes, std::to_string(next[one.wid]++));
  }
  EXPECT_THAT(next, ElementsAre(kPackets, kPackets, kPackets));
}

TEST_F(WorkerTest, TheGraphMayChangeWhileWorkersRun) {
  ASSERT_EQ(Worker::Add(0), "");
  Probe* probe = MakeProbe("probe");
  Sink* sink = MakeSink("sink");
  const StopWorkers stop;
  probe->on_run = [&](Context* ctx, PacketBatch*) {
    for (gate_idx_t gate = 0; gate < 4; gate++) {
      probe->EmitPacket(ctx, MakePacket("x"), gate);
    }
  };
  ASSERT_EQ(Worker::AttachTasks(probe, 0), "");
  ASSERT_EQ(Worker::ResumeAll(), "");
  for (int i = 0; i < 100; i++) {
    const gate_idx_t gate = i % 4;
    Connect(probe, gate, sink, gate);
    const uint64_t runs = Worker::Runs(0);
    ASSERT_TRUE(Eventually([&] { return Worker::Runs(0) > runs; }));
    EXPECT_EQ(bess::DisconnectModules("probe", gate).error().code(), 0);
    EXPECT_TRUE(Worker::IsRunning(0));
  }
  EXPECT_EQ(bess::DestroyModule("probe").error().code(), 0);
  EXPECT_TRUE(Worker::IsRunning(0));
  EXPECT_GE(sink->count(), 100u);
}

}  // namespace
