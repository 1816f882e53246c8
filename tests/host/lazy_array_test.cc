// SPDX-License-Identifier: BSD-3-Clause
#include "internal/lazy_array.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>
#include <new>

namespace {

using bess::internal::LazyArray;

bool IsMapped(void* page) {
  unsigned char resident;
  return mincore(page, 1, &resident) == 0 || errno != ENOMEM;
}

TEST(LazyArray, IsZeroedAndGoesAsAWhole) {
  constexpr size_t kSize = 1 << 20;
  void* first;
  void* last;
  {
    LazyArray<uint64_t> array(kSize);
    EXPECT_EQ(array.size(), kSize);
    EXPECT_EQ(array[0], 0u);
    EXPECT_EQ(array[kSize - 1], 0u);
    array[kSize - 1] = 1;
    first = &array[0];
    last = &array[kSize - 512];  // the last page
    EXPECT_TRUE(IsMapped(first));
    EXPECT_TRUE(IsMapped(last));
  }
  EXPECT_FALSE(IsMapped(first));
  EXPECT_FALSE(IsMapped(last));
}

TEST(LazyArray, SaysWhenThereIsNoRoom) {
  EXPECT_THROW(LazyArray<uint64_t>(size_t{1} << 50), std::bad_alloc);
}

}  // namespace
