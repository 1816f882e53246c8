// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <pthread.h>

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

// The test program's own versions of a few library functions, which record
// their arguments, pass the call on, and fail when told to.
namespace Interposed {

struct NewTable {
  unsigned long initSize;
  unsigned long minBuckets;
  unsigned long maxBuckets;
  int flags;
  const void* memory;
  const void* flavor;
  pthread_attr_t* attributes;
};

struct Allocation {
  std::string type;
  size_t size;
  unsigned align;
  void* result;
};

struct State {
  // Recorded.
  NewTable newTable{};         // the last table made
  std::vector<bool> destroys;  // was the caller an online reader?
  std::vector<Allocation> zmallocs;
  std::vector<void*> frees;  // on any thread
  int syncs = 0;             // calls of synchronize_rcu

  // Asked for.
  bool failNew = false;
  bool failDestroy = false;
  bool failDel = false;  // removes the node, then says another thread did
  bool failZmalloc = false;
  time_t now = 0;  // what time() answers; 0: the real time
};

State& state();

// A fresh state for a scope. Frees of deferred nodes are recorded from
// liburcu's thread, so drain it first.
class Scope {
 public:
  Scope();
  ~Scope();
};

// How often `p` was given to rte_free.
int countFrees(const void* p);

}  // namespace Interposed
