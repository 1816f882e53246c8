// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/file_text.h"

#include <gtest/gtest.h>

#include <sstream>

namespace ofswitch {
namespace {

// Answers the text, or why it is not taken.
std::string reading(const std::string& text, const TextLimits& limits) {
  std::istringstream in(text);
  try {
    return readAll(in, "f", limits);
  } catch (const FileError& error) {
    return error.what();
  }
}

constexpr size_t kMb = size_t{1} << 20;

TEST(FileText, IsReadAsItIs) {
  EXPECT_EQ(reading("", kFlowText), "");
  const std::string zeros("a\0b\r\n\n", 6);
  EXPECT_EQ(reading(zeros, kFlowText), zeros);
}

TEST(FileText, MayBeAsLongAsTheLimit) {
  const TextLimits limits = {2 * kMb, SIZE_MAX};
  const std::string most(2 * kMb, 'x');
  EXPECT_EQ(reading(most, limits), most);
  EXPECT_EQ(reading(most + "y", limits),
            "f:1: more than 2 MB of text; no more is read");
  std::string lines = most + "y";
  lines[0] = lines[kMb] = lines[kMb + 1] = '\n';
  EXPECT_EQ(reading(lines, limits),
            "f:4: more than 2 MB of text; no more is read");
}

// Blocks are what is looked at, so that a line may end in the one that made it
// too long.
TEST(FileText, LinesMayBeAsLongAsTheLimit) {
  const TextLimits limits = {8 * kMb, kMb};
  const std::string line(kMb, 'x');
  const std::string good = line + "\n" + line + "\n" + line;
  EXPECT_EQ(reading(good, limits), good);
  EXPECT_EQ(reading("a\nb\n" + line + "x", limits),
            "f:3: a line of more than 1048576 characters; no more is read");
}

}  // namespace
}  // namespace ofswitch
