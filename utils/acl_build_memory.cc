// SPDX-License-Identifier: BSD-3-Clause
#include "utils/acl_build_memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

#include "utils/available_memory.h"
#include "utils/internal/import_slot.h"

namespace Dpdk {
namespace {

constexpr size_t kLeastDefault = size_t{64} << 20;
constexpr size_t kMostDefault = size_t{4} << 30;

constexpr size_t kHugePage = size_t{2} << 20;

std::atomic<size_t> limit = 0;  // 0: not known yet

std::mutex lastMutex;
AclBuildMemory last;

thread_local AclBuildScope* openScope = nullptr;

}  // namespace

size_t aclBuildLimit() {
  size_t bytes = limit.load(std::memory_order_relaxed);
  if (bytes == 0) {
    const size_t fitting = aclBuildLimitFor(availableMemory());
    // Whoever sets one meanwhile is right.
    if (limit.compare_exchange_strong(bytes, fitting)) bytes = fitting;
  }
  return bytes;
}

size_t aclBuildLimitFor(size_t available) {
  return std::clamp(available / 4, kLeastDefault, kMostDefault);
}

void setAclBuildLimit(size_t bytes) { limit = std::max<size_t>(bytes, 1); }

bool AclBuildScope::redirectCalls() {
  static const bool redirected = [] {
    const auto redirect = [](const char* function, auto* to) {
      return internal::redirectImport("librte_acl.so", function,
                                      reinterpret_cast<void*>(to));
    };
    return redirect("free", &countedFree) && redirect("calloc", &countedCalloc);
  }();
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
  const std::lock_guard lock(lastMutex);
  last = memory_;
}

// All that the library asks for during a build are blocks of at least 8 MiB.
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
  void* block = scope->map(bytes);
  if (block == nullptr) memory.starved = true;
  return block;
}

// The library gives back during the build whatever it took there.
void AclBuildScope::countedFree(void* block) {
  AclBuildScope* scope = openScope;
  if (scope == nullptr || !scope->unmap(block)) std::free(block);
}

// Null when the system has no memory either. What calls is C.
void* AclBuildScope::map(size_t bytes) noexcept {
  // A small build does not get beyond its first 2 MiB, and clearing a page of
  // that size takes longer than all of it.
  const size_t small = blocks_.empty() ? kHugePage : 0;
  try {
    blocks_.emplace_back();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  Block& block = blocks_.back();
  block.bytes = bytes;
  block.mapped = bytes + kHugePage;  // room to begin where a huge page does
  block.mapping = mmap(nullptr, block.mapped, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block.mapping == MAP_FAILED) {
    blocks_.pop_back();
    return nullptr;
  }
  const auto address = reinterpret_cast<uintptr_t>(block.mapping);
  block.start = static_cast<char*>(block.mapping) + -address % kHugePage;
  const size_t whole = bytes / kHugePage * kHugePage;
  if (whole > small) madvise(block.start + small, whole - small, MADV_HUGEPAGE);

  used_ += bytes;
  memory_.peak = std::max(memory_.peak, used_);
  return block.start;
}

// False when it is none of this scope.
bool AclBuildScope::unmap(void* start) {
  const auto found = std::ranges::find(blocks_, start, &Block::start);
  if (found == blocks_.end()) return false;
  munmap(found->mapping, found->mapped);
  used_ -= found->bytes;
  blocks_.erase(found);
  return true;
}

}  // namespace Dpdk
