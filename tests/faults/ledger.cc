// SPDX-License-Identifier: BSD-3-Clause
#include "tests/faults/ledger.h"

#include <pthread.h>
#include <rte_malloc.h>
#include <sys/mman.h>
#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

#include "tests/support/next_definition.h"

namespace Ledger {
namespace {

enum class Heap { kOrdinary, kArray, kDpdk };

struct Block {
  std::string tag;
  Heap heap;
};

struct Books {
  std::mutex mutex;
  std::map<void*, Block> live;

  // Of the watch, which is one thread's.
  int failing = Watch::kNone;
  int requests = 0;
  std::string refusedTag;
  Tally granted;
};

// Never destroyed: blocks are freed until the very end.
Books& books() {
  static auto* books = new Books;
  return *books;
}

thread_local bool watching = false;

// Whether this thread keeps the books, or is in an allocation function that
// calls another one.
thread_local bool busy = false;

class Busy {
 public:
  Busy() { busy = true; }
  ~Busy() { busy = false; }
};

bool watched() { return watching && !busy; }

// Numbers a request; whether it is the one that fails.
bool refuses(const char* tag) {
  Books& all = books();
  if (all.requests++ == all.failing) {
    all.refusedTag = tag;
    return true;
  }
  if (all.refusedTag.empty()) all.granted[tag]++;
  return false;
}

void enter(void* block, const char* tag, Heap heap) {
  if (block == nullptr) return;
  const std::lock_guard lock(books().mutex);
  books().live[block] = {tag, heap};
}

void leave(void* block) {
  if (busy || block == nullptr) return;
  const Busy now;
  const std::lock_guard lock(books().mutex);
  books().live.erase(block);
}

using openflow_test::next;

// `take` on behalf of the watch, or without it.
template <class Take>
void* request(const char* tag, Heap heap, Take take) {
  if (!watched()) return take();
  const Busy now;
  if (refuses(tag)) return nullptr;
  void* block = take();
  enter(block, tag, heap);
  return block;
}

template <class Take>
void* requestDpdk(const char* type, Take take) {
  if (type == nullptr) type = "(none)";
  if (std::string_view(type) != "RTE_KoRcuHt" || !watched()) {
    return request(type, Heap::kDpdk, take);
  }
  const Busy now;
  void* block = take();
  enter(block, type, Heap::kDpdk);
  return block;
}

void* requestOrThrow(const char* tag, Heap heap, size_t size) {
  void* block = request(tag, heap, [size] { return std::malloc(size); });
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

Watch::Watch(int failing) {
  Books& all = books();
  all.failing = failing;
  all.requests = 0;
  all.refusedTag.clear();
  all.granted.clear();
  watching = true;
}

Watch::~Watch() { stop(); }

void Watch::stop() { watching = false; }

bool Watch::refused() const { return !books().refusedTag.empty(); }
std::string Watch::refusedTag() const { return books().refusedTag; }
int Watch::requests() const { return books().requests; }
const Tally& Watch::granted() const { return books().granted; }

Tally live() {
  const std::lock_guard lock(books().mutex);
  Tally tally;
  for (const auto& [block, entry] : books().live) tally[entry.tag]++;
  return tally;
}

void settle() {
  std::map<void*, Block> blocks;
  {
    const std::lock_guard lock(books().mutex);
    blocks.swap(books().live);
  }
  for (const auto& [block, entry] : blocks) {
    if (entry.heap == Heap::kDpdk) rte_free(block);
    if (entry.heap == Heap::kArray) ::operator delete[](block);
  }
}

}  // namespace Ledger

using Ledger::Heap;
using Ledger::leave;
using Ledger::next;
using Ledger::request;
using Ledger::requestDpdk;
using Ledger::requestOrThrow;

extern "C" {

void* rte_malloc(const char* type, size_t size, unsigned align) {
  static auto* real = next<decltype(rte_malloc)>("rte_malloc");
  return requestDpdk(type, [&] { return real(type, size, align); });
}

void* rte_zmalloc(const char* type, size_t size, unsigned align) {
  static auto* real = next<decltype(rte_zmalloc)>("rte_zmalloc");
  return requestDpdk(type, [&] { return real(type, size, align); });
}

void* rte_zmalloc_socket(const char* type, size_t size, unsigned align,
                         int socket) {
  static auto* real = next<decltype(rte_zmalloc_socket)>("rte_zmalloc_socket");
  return requestDpdk(type, [&] { return real(type, size, align, socket); });
}

void rte_free(void* block) {
  static auto* real = next<decltype(rte_free)>("rte_free");
  leave(block);
  real(block);
}

cds_lfht* _cds_lfht_new(unsigned long initSize, unsigned long minBuckets,
                        unsigned long maxBuckets, int flags,
                        const cds_lfht_mm_type* memory,
                        const rcu_flavor_struct* flavor,
                        pthread_attr_t* attributes) {
  static auto* real = next<decltype(_cds_lfht_new)>("_cds_lfht_new");
  cds_lfht* table = nullptr;
  request("hash table", Heap::kOrdinary, [&]() -> void* {
    table = real(initSize, minBuckets, maxBuckets, flags, memory, flavor,
                 attributes);
    return nullptr;
  });
  return table;
}

void* mmap(void* address, size_t size, int protection, int flags, int file,
           off_t offset) noexcept {
  static auto* real = next<decltype(mmap)>("mmap");
  void* mapping = MAP_FAILED;
  request("mapping", Heap::kOrdinary, [&]() -> void* {
    mapping = real(address, size, protection, flags, file, offset);
    return nullptr;
  });
  return mapping;
}
}

void* operator new(size_t size) {
  return requestOrThrow("new", Heap::kOrdinary, size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return request("new nothrow", Heap::kOrdinary,
                 [size] { return std::malloc(size); });
}

void* operator new[](size_t size) {
  return requestOrThrow("new[]", Heap::kArray, size);
}

void* operator new(size_t size, std::align_val_t alignment) {
  const auto boundary = static_cast<size_t>(alignment);
  void* block = request("new", Heap::kOrdinary, [=] {
    return std::aligned_alloc(boundary,
                              (size + boundary - 1) / boundary * boundary);
  });
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void operator delete(void* block) noexcept {
  leave(block);
  std::free(block);
}
void operator delete(void* block, size_t) noexcept { operator delete(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept {
  operator delete(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
  operator delete(block);
}
void operator delete(void* block, size_t, std::align_val_t) noexcept {
  operator delete(block);
}
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete[](void* block, size_t) noexcept { operator delete(block); }
