// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

class Module;

// A thread that runs tasks, known by its index below kMaxWorkers. Each worker
// is an lcore of DPDK's (so that packet pools cache for it) and a reader of
// liburcu's QSBR flavour: quiescent between task runs, offline while paused,
// idle or blocked, so that it never holds up a grace period for long. A program
// stops its workers before it ends.
//
// The functions change the host on the command thread (control.h) and may be
// called from any thread but a worker. Those that can fail answer an error text
// for a person, empty on success.
class Worker {
 public:
  static constexpr int kMaxWorkers = 16;
  static constexpr int kNoCore = -1;

  // Starts worker `wid`, paused, pinned to `core` unless that is kNoCore.
  static std::string Add(int wid, int core = kNoCore);

  // Gives all tasks of `module` to worker `wid`, taking them from the worker
  // that has them now. Workers are paused meanwhile.
  static std::string AttachTasks(Module* module, int wid);

  // Takes the tasks of `module` from their worker. What waits in them is freed.
  static void DetachTasks(Module* module);

  // Lets every worker finish its current task run and wait / run on. Resuming
  // tells modules of Event::PreResume first, and is refused when a module's
  // constraints do not hold.
  static void PauseAll();
  static std::string ResumeAll();

  // Ends a worker's thread. Its tasks are detached.
  static std::string Stop(int wid);
  static void StopAll();

  // True while the worker exists and is not paused, or while its index runs
  // tasks inline.
  static bool IsRunning(int wid);
  static bool Exists(int wid);

  // Indexes of all workers, ascending.
  static std::vector<int> List();

  // A worker whose tasks have had nothing to do for a while sleeps, at first
  // for a few microseconds, then longer and longer up to this; the first packet
  // ends it. Zero: workers never sleep and take up their processors. At any
  // time.
  static constexpr std::chrono::microseconds kDefaultIdleSleep{200};
  static void SetLongestIdleSleep(std::chrono::microseconds longest);

  // Task runs that the worker has completed since it was added.
  static uint64_t Runs(int wid);
};

inline constexpr int MAX_WORKERS = Worker::kMaxWorkers;
