// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace QuilModules {

// One worker's counters. Only that worker adds; anyone may read meanwhile. They
// share no cache line with anything else.
class alignas(64) WorkerCounters {
 public:
  explicit WorkerCounters(uint32_t size)
      : size_(size), counters_(Allocate(size)) {}

  // A counter that does not exist counts nothing.
  void add(uint32_t id, uint64_t n) { AddTo(counters_.get(), size_, id, n); }

  // Adds 1 to counter `packets`, and a packet's length to counter `bytes`.
  void countPacket(uint32_t packets, uint32_t bytes, uint64_t length) {
    // Read once: what an addition stores might be these, for all the compiler
    // knows.
    const uint32_t size = size_;
    std::atomic<uint64_t>* counters = counters_.get();
    AddTo(counters, size, packets, 1);
    AddTo(counters, size, bytes, length);
  }

  // Starts the load of a counter that is to be added to soon. Additions wait in
  // line for the memory that they go to: not asked for ahead, counters that are
  // spread over memory hold up everything behind them.
  void prefetch(uint32_t id) const {
    __builtin_prefetch(counters_.get() + id, 1);
  }

  // 0 for a counter that does not exist.
  uint64_t read(uint32_t id) const {
    return id < size_ ? counters_[id].load(std::memory_order_relaxed) : 0;
  }

  uint32_t size() const { return size_; }

  // The first of them; the others follow in order.
  const std::atomic<uint64_t>* data() const { return counters_.get(); }

 private:
  static constexpr std::align_val_t kLine{64};

  static void AddTo(std::atomic<uint64_t>* counters, uint32_t size, uint32_t id,
                    uint64_t n) {
    if (id < size) [[likely]] {
      // Not fetch_add: with one writer a plain addition is enough.
      std::atomic<uint64_t>& counter = counters[id];
      counter.store(counter.load(std::memory_order_relaxed) + n,
                    std::memory_order_relaxed);
    }
  }

  struct Delete {
    void operator()(std::atomic<uint64_t>* counters) const {
      operator delete[](counters, kLine);
    }
  };

  static std::atomic<uint64_t>* Allocate(uint32_t size) {
    constexpr size_t kPerLine = 64 / sizeof(std::atomic<uint64_t>);
    const size_t whole = (size + kPerLine - 1) / kPerLine * kPerLine;
    return new (kLine) std::atomic<uint64_t>[whole] {};
  }

  const uint32_t size_;
  const std::unique_ptr<std::atomic<uint64_t>[], Delete> counters_;
};

// The counters of all workers, by worker index. Made and destroyed on the
// control thread; a worker reads its own entry, on the way of every packet.
class CounterDb {
 public:
  static constexpr int kMaxWorkers = 16;

  // Null when the worker has no counters or cannot exist.
  WorkerCounters* operator[](int wid) const {
    return wid >= 0 && wid < kMaxWorkers
               ? workers_[wid].load(std::memory_order_acquire)
               : nullptr;
  }

  // Gives worker `wid` counters, all zero. False, and nothing changed, when it
  // has some already or cannot exist.
  bool create(int wid, uint32_t numCounters);

  // Takes them away, and waits until no worker can be using them.
  void destroy(int wid);

  // A counter over all workers; not a snapshot while they run.
  uint64_t sum(uint32_t id) const;

 private:
  // Plain pointers, so that the database needs no destruction at exit, when
  // workers may still run.
  std::array<std::atomic<WorkerCounters*>, kMaxWorkers> workers_{};
};

extern CounterDb bessCounterDb;

}  // namespace QuilModules
