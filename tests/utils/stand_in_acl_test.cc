// SPDX-License-Identifier: BSD-3-Clause
//
// What librte_acl does not ask for, but another version of it may.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "utils/acl_build_memory.h"

namespace {

size_t limitOfAnother = 0;

}  // namespace

// The program's own version of the system's function, through which the memory
// that is available is looked up: somebody sets a limit at that moment.
extern "C" FILE* fopen64(const char* path, const char* mode) {
  static const auto real =
      reinterpret_cast<decltype(&fopen64)>(dlsym(RTLD_NEXT, "fopen64"));
  if (limitOfAnother != 0) {
    Dpdk::setAclBuildLimit(std::exchange(limitOfAnother, 0));
  }
  return real(path, mode);
}

namespace Dpdk {
namespace {

constexpr size_t kMb = size_t{1} << 20;

// A process may look for librte_acl once: what it does not find then stays as
// it is. Tests that need a first look have a process of their own.
class StandInDeathTest : public testing::Test {
 protected:
  StandInDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

class StandIn : public testing::Test {
 protected:
  StandIn() : library_(dlopen(STAND_IN, RTLD_NOW)) {
    EXPECT_NE(library_, nullptr) << dlerror();
    setAclBuildLimit(8 * kMb);
    EXPECT_TRUE(aclBuildsAreLimited());
  }

  void* take(size_t count, size_t size) const {
    using Take = void* (*)(size_t, size_t);
    return reinterpret_cast<Take>(dlsym(library_, "takeMemory"))(count, size);
  }

  void give(void* block) const {
    using Give = void (*)(void*);
    reinterpret_cast<Give>(dlsym(library_, "giveMemory"))(block);
  }

 private:
  void* const library_;
};

TEST_F(StandIn, GetsSmallBlocksInTheirPlace) {
  const AclBuildScope scope;
  for (const size_t bytes : {size_t{4096}, 3 * kMb, size_t{64}}) {
    auto* block = static_cast<char*>(take(1, bytes));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % (2 * kMb), 0u);
    EXPECT_TRUE(
        std::all_of(block, block + bytes, [](char byte) { return byte == 0; }));
    std::fill_n(block, bytes, 'x');
    give(block);
  }
  EXPECT_EQ(scope.memory().peak, 3 * kMb);
  EXPECT_FALSE(scope.memory().refused);
}

TEST_F(StandIn, GetsNothingThatNoNumberCanCount) {
  const AclBuildScope scope;
  EXPECT_EQ(take(SIZE_MAX / 2, 3), nullptr);
  EXPECT_TRUE(scope.memory().refused);
  EXPECT_EQ(scope.memory().peak, 0u);
}

// What it has had for longer is the heap's.
TEST_F(StandIn, GivesBackDuringABuildWhatItTookBefore) {
  void* const before = take(1, kMb);
  const AclBuildScope scope;
  void* const block = take(1, 5 * kMb);
  give(before);
  EXPECT_EQ(take(1, 4 * kMb), nullptr) << "it makes no room";
  give(block);
  give(nullptr);
  EXPECT_EQ(scope.memory().peak, 5 * kMb);
}

// Then nothing is: what one of the two hands out, the other one must take.
TEST_F(StandInDeathTest, IsNotLimitedWhenOneOfItsCallsCannotBeRedirected) {
  const auto run = [] {
    if (dlopen(STAND_IN_THAT_ONLY_GIVES, RTLD_NOW) == nullptr) _exit(1);
    _exit(aclBuildsAreLimited() ? 2 : 7);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(7), "");
}

TEST_F(StandInDeathTest, HasTheLimitThatIsSetDuringTheFirstLook) {
  const auto run = [] {
    limitOfAnother = 5 * kMb;
    _exit(aclBuildLimit() == 5 * kMb && aclBuildLimit() == 5 * kMb ? 7 : 1);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace Dpdk
