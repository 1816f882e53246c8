// SPDX-License-Identifier: BSD-3-Clause
#include "platform/ringlog/argument.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <string>

namespace {

using Ringlog::Argument;

template <class... Args>
std::string print(const char* format, const Args&... args) {
  const std::array<Argument, sizeof...(Args)> arguments{Argument::of(args)...};
  return Ringlog::format(format, arguments);
}

enum OldEnum { kOld = -3 };
enum class Byte : uint8_t { kValue = 200 };

TEST(Argument, IntegersAreDecimal) {
  EXPECT_EQ(print("%s", 42), "42");
  EXPECT_EQ(print("%s", -42), "-42");
  EXPECT_EQ(print("%s", uint8_t{65}), "65");
  EXPECT_EQ(print("%s", int8_t{-65}), "-65");
  EXPECT_EQ(print("%s", uint16_t{65535}), "65535");
  EXPECT_EQ(print("%s", 4294967295u), "4294967295");
  EXPECT_EQ(print("%s", std::numeric_limits<uint64_t>::max()),
            "18446744073709551615");
  EXPECT_EQ(print("%s", std::numeric_limits<int64_t>::min()),
            "-9223372036854775808");
}

TEST(Argument, BoolsAndEnumeratorsAreNumbers) {
  EXPECT_EQ(print("%s %s", true, false), "1 0");
  EXPECT_EQ(print("%s", kOld), "-3");
  EXPECT_EQ(print("%s", Byte::kValue), "200");
}

TEST(Argument, TextIsAsItIs) {
  const char* text = "pointed to";
  char array[] = "array";
  EXPECT_EQ(print("%s", "literal"), "literal");
  EXPECT_EQ(print("%s", text), "pointed to");
  EXPECT_EQ(print("%s", array), "array");
  EXPECT_EQ(print("%s", std::string("string")), "string");
  EXPECT_EQ(print("%s", std::string_view("a view of it", 6)), "a view");
  EXPECT_EQ(print("[%s]", ""), "[]");
  EXPECT_EQ(print("%s", 'c'), "c");
  EXPECT_EQ(print("%s", static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(print("%s", std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(Argument, OtherNumbersAndPointers) {
  EXPECT_EQ(print("%s", 0.5), "0.5");
  EXPECT_EQ(print("%s", -1.25f), "-1.25");
  EXPECT_EQ(print("%s", reinterpret_cast<void*>(0x1f00)), "0x1f00");
  EXPECT_EQ(print("%s", reinterpret_cast<const int*>(0x20)), "0x20");
}

TEST(Format, PlaceholdersTakeArgumentsInOrder) {
  EXPECT_EQ(print("a: %s, b: %s", 1, "two"), "a: 1, b: two");
  EXPECT_EQ(print("%s%s", 1, 2), "12");
}

TEST(Format, TextWithoutPlaceholdersIsAsItIs) {
  EXPECT_EQ(print("virtual void OpenFlow::DeInit(): "),
            "virtual void OpenFlow::DeInit(): ");
  EXPECT_EQ(print(""), "");
}

TEST(Format, OtherPercentSigns) {
  EXPECT_EQ(print("100%% of %s", 5), "100% of 5");
  EXPECT_EQ(print("%%s %s", 5), "%s 5");
  EXPECT_EQ(print("%d %s%", 5), "%d 5%");
  EXPECT_EQ(print("%s and %s", 1), "1 and %s");
  EXPECT_EQ(print("%s", "%s"), "%s");
}

TEST(Format, CountsPlaceholders) {
  EXPECT_EQ(Ringlog::countPlaceholders(""), 0u);
  EXPECT_EQ(Ringlog::countPlaceholders("%"), 0u);
  EXPECT_EQ(Ringlog::countPlaceholders("%s"), 1u);
  EXPECT_EQ(Ringlog::countPlaceholders("%%s"), 0u);
  EXPECT_EQ(Ringlog::countPlaceholders("%%%s %s%"), 2u);
  EXPECT_EQ(Ringlog::countPlaceholders("%d%s"), 1u);
}

}  // namespace
