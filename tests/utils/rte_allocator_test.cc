// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>
#include <rte_malloc.h>

#include <algorithm>
#include <cstdint>

#include "tests/utils/interpose.h"
#include "utils/RteAllocator.h"

namespace {

struct Block {
  uint64_t words[16];
};

TEST(RteAllocator, GivesZeroedAlignedMemoryInItsName) {
  const Interposed::Scope scope;
  Dpdk::RteAllocator<Block> allocator("RTE_KoRcuHt");
  // Dirty what the heap will hand out again.
  Block* dirty = allocator.allocate(3, nullptr);
  std::fill_n(reinterpret_cast<char*>(dirty), 3 * sizeof(Block), 0x5a);
  allocator.deallocate(dirty, 3);

  Block* blocks = allocator.allocate(3, nullptr);

  EXPECT_EQ(reinterpret_cast<uintptr_t>(blocks) % 64, 0u);
  const char* bytes = reinterpret_cast<const char*>(blocks);
  EXPECT_EQ(std::count(bytes, bytes + 3 * sizeof(Block), 0),
            static_cast<std::ptrdiff_t>(3 * sizeof(Block)));
  ASSERT_EQ(Interposed::state().zmallocs.size(), 2u);
  const Interposed::Allocation& call = Interposed::state().zmallocs.back();
  EXPECT_EQ(call.type, "RTE_KoRcuHt");
  EXPECT_EQ(call.size, 3 * sizeof(Block));
  EXPECT_EQ(call.align, 64u);
  EXPECT_EQ(call.result, blocks);
  allocator.deallocate(blocks, 3);
  EXPECT_EQ(Interposed::countFrees(blocks), blocks == dirty ? 2 : 1);
}

TEST(RteAllocator, FreesNothingForNull) {
  const Interposed::Scope scope;
  Dpdk::RteAllocator<Block> allocator("RTE");
  allocator.deallocate(nullptr, 1);
  EXPECT_TRUE(Interposed::state().frees.empty());
}

TEST(RteAllocator, IsUsedThroughItsBase) {
  const Interposed::Scope scope;
  Dpdk::RteAllocator<Block> allocator("Base");
  Dpdk::RteAllocatorBase<Block>& base = allocator;
  Block* block = base.allocate(1);
  EXPECT_EQ(Interposed::state().zmallocs.back().type, "Base");
  base.deallocate(block, 1);
  EXPECT_EQ(Interposed::countFrees(block), 1);
}

// The table's callers count on these two slots and on nothing else.
TEST(RteAllocator, HasAllocateThenDeallocateInItsSlots) {
  const Interposed::Scope scope;
  Dpdk::RteAllocator<Block> allocator("Slots");
  using Allocate = Block* (*)(void*, size_t, const void*);
  using Deallocate = void (*)(void*, Block*, size_t);
  void** slots = *reinterpret_cast<void***>(&allocator);
  Block* block = reinterpret_cast<Allocate>(slots[0])(&allocator, 2, nullptr);
  EXPECT_EQ(Interposed::state().zmallocs.back().size, 2 * sizeof(Block));
  reinterpret_cast<Deallocate>(slots[1])(&allocator, block, 2);
  EXPECT_EQ(Interposed::countFrees(block), 1);
  EXPECT_EQ(sizeof(allocator), sizeof(void*) + sizeof(std::string));
}

TEST(RteAllocatorDeathTest, ADryHeapIsFatal) {
  Dpdk::RteAllocator<Block> allocator("RTE_KoRcuHt");
  EXPECT_DEATH(
      {
        Interposed::state().failZmalloc = true;
        allocator.allocate(1);
      },
      "RteAllocator:72\\] Check failed: 0 "
      "\\(/src/QuilModules/RteAllocator:72\\)");
}

}  // namespace
