// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <chrono>
#include <thread>

#include "tests/support/time_limit.h"
#include "worker.h"

// Waits until `done`, for at most ten seconds in an ordinary build.
template <typename F>
bool Eventually(F done) {
  const auto deadline = std::chrono::steady_clock::now() +
                        openflow_test::timeLimit(std::chrono::seconds(10));
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Stops all workers at the end of its scope. Declared behind everything that a
// module's function refers to.
struct StopWorkers {
  ~StopWorkers() { Worker::StopAll(); }
};
