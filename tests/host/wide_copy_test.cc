// SPDX-License-Identifier: BSD-3-Clause
#include "internal/wide_copy.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using bess::internal::AllowWideCopies;
using bess::internal::CopyLines;
using bess::internal::wide_copies;

// Leaves the choice as it was.
class WideCopyTest : public testing::Test {
 protected:
  ~WideCopyTest() override { wide_copies = before_; }

  const bool before_ = wide_copies;
};

void CopiesItsLinesAndNoOther() {
  std::mt19937 random(1);
  for (const auto& [size, copied] :
       {std::pair{0ul, 64ul}, {1, 64}, {64, 64}, {65, 128}, {300, 320}}) {
    for (size_t at = 0; at < 64; at++) {
      std::string from(64 + copied + 64, '\0');
      for (char& byte : from) {
        byte = static_cast<char>(random());
      }
      std::string to(from.size(), '.');
      CopyLines(&to[at], &from[64 - at], size);
      const std::string expected = std::string(at, '.') +
                                   from.substr(64 - at, copied) +
                                   std::string(128 - at, '.');
      EXPECT_EQ(to, expected) << size << " bytes at " << at;
    }
  }
}

TEST_F(WideCopyTest, CopiesOnAnyProcessor) {
  AllowWideCopies(256);
  EXPECT_FALSE(wide_copies);
  CopiesItsLinesAndNoOther();
}

TEST_F(WideCopyTest, CopiesWithWideStoresWhereThereAreAny) {
  AllowWideCopies(512);
  EXPECT_EQ(wide_copies, __builtin_cpu_supports("avx512f") != 0);
  CopiesItsLinesAndNoOther();
}

// A module built for AVX-512 has the copy's registers for itself, too.
TEST_F(WideCopyTest, LeavesVectorsThatAModuleHasInUse) {
  AllowWideCopies(512);
  if (!wide_copies) {
    return;  // nor does such a module run here
  }
  void* module = dlopen(WIDE_REGISTERS_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  const auto copy = reinterpret_cast<void (*)(float*, char*, const char*)>(
      dlsym(module, "CopyWithVectorsInUse"));
  ASSERT_NE(copy, nullptr);
  std::vector<float> vectors(28 * 16);
  std::iota(vectors.begin(), vectors.end(), 1.0f);
  const std::vector<float> before = vectors;
  const std::string from(128, 'x');
  std::string to(128, '.');
  copy(vectors.data(), to.data(), from.data());
  EXPECT_EQ(to, from);
  EXPECT_EQ(vectors, before);
  dlclose(module);
}

}  // namespace
