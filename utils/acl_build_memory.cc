// SPDX-License-Identifier: BSD-3-Clause
#include "utils/acl_build_memory.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>

#include "utils/available_memory.h"
#include "utils/internal/import_slot.h"

namespace Dpdk {
namespace {

constexpr size_t kLeastDefault = size_t{64} << 20;
constexpr size_t kMostDefault = size_t{4} << 30;

// From here on a build is big: what it leaves in the heap is worth the walk
// over all of the heap that returns it.
constexpr size_t kBig = size_t{64} << 20;

std::atomic<size_t> limit = 0;  // 0: not known yet

std::mutex lastMutex;
AclBuildMemory last;

thread_local AclBuildScope* openScope = nullptr;

}  // namespace

size_t aclBuildLimit() {
  size_t bytes = limit.load(std::memory_order_relaxed);
  if (bytes == 0) {
    const size_t fitting =
        std::clamp(availableMemory() / 4, kLeastDefault, kMostDefault);
    // Whoever sets one meanwhile is right.
    if (limit.compare_exchange_strong(bytes, fitting)) bytes = fitting;
  }
  return bytes;
}

void setAclBuildLimit(size_t bytes) { limit = std::max<size_t>(bytes, 1); }

bool AclBuildScope::redirectCalls() {
  constexpr char kLibrary[] = "librte_acl.so";
  static const bool redirected =
      internal::redirectImport(kLibrary, "free",
                               reinterpret_cast<void*>(&countedFree)) &&
      internal::redirectImport(kLibrary, "calloc",
                               reinterpret_cast<void*>(&countedCalloc));
  return redirected;
}

bool aclBuildsAreLimited() { return AclBuildScope::redirectCalls(); }

AclBuildMemory lastAclBuild() {
  const std::lock_guard lock(lastMutex);
  return last;
}

AclBuildScope::AclBuildScope() {
  redirectCalls();
  memory_.limit = aclBuildLimit();
  openScope = this;
}

AclBuildScope::~AclBuildScope() {
  openScope = nullptr;
  if (memory_.peak >= kBig) malloc_trim(0);
  const std::lock_guard lock(lastMutex);
  last = memory_;
}

void* AclBuildScope::countedCalloc(size_t count, size_t size) {
  AclBuildScope* scope = openScope;
  if (scope == nullptr) return std::calloc(count, size);
  AclBuildMemory& memory = scope->memory_;
  size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes) ||
      bytes > memory.limit - std::min(memory.limit, scope->used_)) {
    memory.refused = true;
    return nullptr;
  }
  void* block = std::calloc(count, size);
  if (block != nullptr) {
    scope->used_ += malloc_usable_size(block);
    memory.peak = std::max(memory.peak, scope->used_);
  }
  return block;
}

// A block from before the scope would make it negative; there is none, but
// nothing is lost by being careful.
void AclBuildScope::countedFree(void* block) {
  if (AclBuildScope* scope = openScope; scope != nullptr) {
    scope->used_ -= std::min(scope->used_, malloc_usable_size(block));
  }
  std::free(block);
}

}  // namespace Dpdk
