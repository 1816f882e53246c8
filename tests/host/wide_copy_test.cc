// SPDX-License-Identifier: BSD-3-Clause
#include "internal/wide_copy.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using bess::internal::AllowWideCopies;
using bess::internal::kWideCopySize;
using bess::internal::wide_copies;
using bess::internal::WideCopy;

// Leaves the choice as it was.
class WideCopyTest : public testing::Test {
 protected:
  ~WideCopyTest() override { wide_copies = before_; }

  const bool before_ = wide_copies;
};

void CopiesItsBytesAndNoOther() {
  std::mt19937 random(1);
  for (size_t at = 0; at < 64; at++) {
    std::string from(64 + kWideCopySize + 64, '\0');
    for (char& byte : from) {
      byte = static_cast<char>(random());
    }
    std::string to(from.size(), '.');
    WideCopy(&to[at], &from[64 - at]);
    const std::string expected = std::string(at, '.') +
                                 from.substr(64 - at, kWideCopySize) +
                                 std::string(128 - at, '.');
    EXPECT_EQ(to, expected) << at;
  }
}

TEST_F(WideCopyTest, CopiesOnAnyProcessor) {
  AllowWideCopies(256);
  EXPECT_FALSE(wide_copies);
  CopiesItsBytesAndNoOther();
}

TEST_F(WideCopyTest, CopiesWithWideStoresWhereThereAreAny) {
  AllowWideCopies(512);
  EXPECT_EQ(wide_copies, __builtin_cpu_supports("avx512f") != 0);
  CopiesItsBytesAndNoOther();
}

}  // namespace
