// SPDX-License-Identifier: BSD-3-Clause
#include "switch/terminal/amounts.h"

#include <gtest/gtest.h>

namespace ofswitch {
namespace {

constexpr uint64_t kSecond = 1'000'000'000;

TEST(Amounts, OneIsSingular) {
  EXPECT_EQ(plural(0, "flow"), "0 flows");
  EXPECT_EQ(plural(1, "flow"), "1 flow");
  EXPECT_EQ(plural(2, "flow"), "2 flows");
  EXPECT_EQ(plural(0, "copy was", "copies were"), "0 copies were");
  EXPECT_EQ(plural(1, "copy was", "copies were"), "1 copy was");
}

TEST(Amounts, SizesHaveTheUnitThatFits) {
  EXPECT_EQ(sizeText(0), "0 KB");
  EXPECT_EQ(sizeText(1), "1 KB");
  EXPECT_EQ(sizeText(1024), "1 KB");
  EXPECT_EQ(sizeText(1025), "2 KB");
  EXPECT_EQ(sizeText(10 * 1048576 - 1), "10240 KB");
  EXPECT_EQ(sizeText(10 * 1048576), "10 MB");
  EXPECT_EQ(sizeText(10 * 1048576 + 524287), "10 MB");
  EXPECT_EQ(sizeText(10 * 1048576 + 524288), "11 MB");
}

TEST(Amounts, TimesHaveTheUnitThatFits) {
  EXPECT_EQ(timeText(0), "0 us");
  EXPECT_EQ(timeText(1'999), "1 us");
  EXPECT_EQ(timeText(999'999), "999 us");
  EXPECT_EQ(timeText(1'000'000), "1.00 ms");
  EXPECT_EQ(timeText(999'990'000), "999.99 ms");
  EXPECT_EQ(timeText(kSecond), "1.00 s");
  EXPECT_EQ(timeText(75 * kSecond), "75.00 s");
}

TEST(Amounts, AgesHaveTheTwoUnitsThatFit) {
  EXPECT_EQ(ageText(0), "0 s");
  EXPECT_EQ(ageText(60 * kSecond - 1), "59 s");
  EXPECT_EQ(ageText(60 * kSecond), "1 min 0 s");
  EXPECT_EQ(ageText(3599 * kSecond), "59 min 59 s");
  EXPECT_EQ(ageText(3600 * kSecond), "1 h 0 min");
  EXPECT_EQ(ageText(86399 * kSecond), "23 h 59 min");
  EXPECT_EQ(ageText(86400 * kSecond), "1 d 0 h");
  EXPECT_EQ(ageText((12 * 24 + 5) * 3600 * kSecond + 600 * kSecond),
            "12 d 5 h");
}

TEST(Amounts, RatesHaveThreeDigitsOrMore) {
  EXPECT_EQ(rateText(0), "0");
  EXPECT_EQ(rateText(0.25), "0.2");
  EXPECT_EQ(rateText(99.9), "99.9");
  EXPECT_EQ(rateText(100), "100");
  EXPECT_EQ(rateText(99'999), "99999");
  EXPECT_EQ(rateText(1e5), "100 k");
  EXPECT_EQ(rateText(1e6), "1.00 M");
  EXPECT_EQ(rateText(1e9), "1.00 G");
  EXPECT_EQ(rateText(25.5e9), "25.50 G");
}

}  // namespace
}  // namespace ofswitch
