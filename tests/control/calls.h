// SPDX-License-Identifier: BSD-3-Clause
//
// The test program's own versions of the library functions that the module's
// commands call: they record their arguments, pass the call on, and fail when
// told to.
#pragma once

#include <rte_acl.h>
#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Calls {

// Which of a function's calls fail. None, to begin with.
class Fault {
 public:
  // Every call / only the n-th from now on, counted from 0.
  static Fault every() { return Fault(kEvery); }
  static Fault call(int n) { return Fault(n); }

  Fault() = default;

  // Counts a call.
  bool strikes() {
    if (left_ < 0) {
      return left_ == kEvery;
    }
    return left_-- == 0;
  }

 private:
  static constexpr int kNever = -1;
  static constexpr int kEvery = -2;
  explicit Fault(int left) : left_(left) {}

  int left_ = kNever;
};

struct Allocation {
  std::string type;  // "(null)" without one
  size_t size;
  unsigned align;
  bool zeroed;
  void* result;
};

struct AclCreate {
  std::string name;
  int socket;
  uint32_t ruleSize;
  uint32_t maxRules;
  rte_acl_ctx* result;
};

struct AclAddRules {
  rte_acl_ctx* ctx;
  const void* rules;
  std::vector<uint8_t> bytes;  // of all rules
  uint32_t count;
};

struct AclBuild {
  rte_acl_ctx* ctx;
  const rte_acl_config* config;
};

struct State {
  // Recorded, each in the order of calls.
  std::vector<Allocation> allocations;  // rte_malloc, rte_zmalloc
  std::vector<void*> frees;             // rte_free, null included
  std::vector<void*> tablesMade;        // cds_lfht_new
  std::vector<unsigned long> tableSizes;
  std::vector<void*> tablesDestroyed;  // cds_lfht_destroy
  std::vector<AclCreate> aclCreates;
  std::vector<AclAddRules> aclAdds;
  std::vector<AclBuild> aclBuilds;
  std::vector<const void*> aclFrees;
  std::vector<const void*> order;  // tablesDestroyed and aclFrees as one list

  // Asked for. Allocations fail only when they are of `failType`.
  Fault failMalloc;
  Fault failZmalloc;
  std::string failType;
  Fault failTable;
  Fault failTableDestroy;  // destroys it, then answers an error
  Fault failAclCreate;
  Fault failAclAddRules;
  Fault failAclBuild;
  Fault failPublish;   // OpenFlow::updateAclCtx
  Fault failNew;       // operator new(std::nothrow)
  Fault failArrayNew;  // operator new[]

  // What memory from rte_malloc and operator new[] is filled with.
  uint8_t fill = 0xa5;
};

State& state();

// A fresh state for a scope. Deferred releases run on liburcu's thread, so they
// are drained first.
class Scope {
 public:
  Scope();
  ~Scope();
};

// How often `p` was given to rte_free.
int countFrees(const void* p);

// The allocations of one type.
std::vector<Allocation> allocations(const std::string& type);

// Arrays from operator new[] of `size` bytes that were made in this scope and
// still exist.
std::vector<void*> liveArrays(size_t size);

}  // namespace Calls
