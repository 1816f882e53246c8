// SPDX-License-Identifier: BSD-3-Clause
#include "platform/quil_modules/counter_db.h"

#include <urcu-qsbr.h>

namespace QuilModules {

constinit CounterDb bessCounterDb;

bool CounterDb::create(int wid, uint32_t numCounters) {
  if (wid < 0 || wid >= kMaxWorkers || (*this)[wid] != nullptr) {
    return false;
  }
  // Release: the worker finds the counters zeroed.
  workers_[wid].store(new WorkerCounters(numCounters),
                      std::memory_order_release);
  return true;
}

void CounterDb::destroy(int wid) {
  if ((*this)[wid] == nullptr) {
    return;
  }
  WorkerCounters* counters =
      workers_[wid].exchange(nullptr, std::memory_order_acq_rel);
  synchronize_rcu();
  delete counters;
}

uint64_t CounterDb::sum(uint32_t id) const {
  uint64_t total = 0;
  for (int wid = 0; wid < kMaxWorkers; wid++) {
    if (const WorkerCounters* counters = (*this)[wid]) {
      total += counters->read(id);
    }
  }
  return total;
}

}  // namespace QuilModules
