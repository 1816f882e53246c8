// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace bess {

// The one thread on which everything that changes the host runs, in the order
// in which it was asked for: commands, changes to the graph, plug-ins.
//
// It is a reader of liburcu's QSBR flavour, online while something runs and
// offline while it waits. Its stack holds commands with a million records.
class ControlThread {
 public:
  static constexpr size_t kStackSize = size_t{64} << 20;

  // Started at its first use; it lives as long as the process.
  static ControlThread& Instance();

  // Runs `fn` there and waits until it is done; what it throws is thrown here.
  // The caller is offline meanwhile if it is a QSBR reader. From the command
  // thread itself `fn` is run at once. Not for workers: `fn` may wait for them.
  void Run(const std::function<void()>& fn);

  // Whether the caller is the command thread.
  bool IsCurrent() const;

 private:
  struct Request;

  ControlThread();
  static void* Main(void* self);
  void Serve();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Request*> requests_;
};

}  // namespace bess
