// SPDX-License-Identifier: BSD-3-Clause
//
// Reading a ring from a position on, and what of it.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/platform/ring_statements.h"

namespace {

using openflow_test::numberSite;
using openflow_test::texts;
using openflow_test::write;
using Ringlog::Reading;
using Ringlog::Ring;
using Ringlog::Site;

TEST(RingReading, IsFollowedFromWhereTheLastReadingEnded) {
  Ring ring(64);
  write(ring, numberSite(), 1);
  write(ring, numberSite(), 2);
  Reading reading = ring.readSince(0);
  EXPECT_EQ(texts(reading.entries),
            std::vector<std::string>({"number 1", "number 2"}));
  EXPECT_EQ(reading.next, 2u);
  reading = ring.readSince(reading.next);
  EXPECT_TRUE(reading.entries.empty());
  write(ring, numberSite(), 3);
  reading = ring.readSince(reading.next);
  EXPECT_EQ(texts(reading.entries), std::vector<std::string>({"number 3"}));
  // A reader that fell behind goes on with the oldest.
  for (int i = 0; i < 100; i++) {
    write(ring, numberSite(), i);
  }
  reading = ring.readSince(reading.next);
  EXPECT_EQ(reading.entries.size(), 64u);
  EXPECT_EQ(reading.entries.front().position, 39u);
  EXPECT_EQ(reading.next, 103u);
}

TEST(RingReading, IsFollowedFromWithinAStatement) {
  Ring ring(64);
  const Site& site = Ringlog::internSite("Test", 2, "f", "%s");
  write(ring, site, std::string(1000, 'x'));  // 9 cells
  write(ring, numberSite(), 1);
  for (const uint64_t position : {1, 5, 8}) {
    const Reading reading = ring.readSince(position);
    EXPECT_EQ(texts(reading.entries), std::vector<std::string>({"number 1"}));
    EXPECT_EQ(reading.next, 10u);
  }
}

TEST(RingReading, AnswersWhatAQueryWants) {
  Ring ring(64);
  const Site& other = Ringlog::internSite("Test", 4, "f", "other %s");
  for (int i = 0; i < 5; i++) {
    write(ring, numberSite(), i);
    write(ring, other, i);
  }
  using Texts = std::vector<std::string>;
  const auto isNumber = [](const Site& site) { return site.level < 3; };
  Reading reading = ring.read({.wanted = isNumber});
  EXPECT_EQ(texts(reading.entries), Texts({"number 0", "number 1", "number 2",
                                           "number 3", "number 4"}));
  EXPECT_EQ(reading.entries[1].position, 2u);
  EXPECT_EQ(reading.next, 10u);
  // Two are enough, so it goes on behind the second.
  reading = ring.read({.since = 1, .most = 2, .wanted = isNumber});
  EXPECT_EQ(texts(reading.entries), Texts({"number 1", "number 2"}));
  EXPECT_EQ(reading.next, 5u);
  reading = ring.read({.last = 2, .wanted = isNumber});
  EXPECT_EQ(texts(reading.entries), Texts({"number 3", "number 4"}));
  EXPECT_EQ(reading.next, 10u);
  reading = ring.read({.most = 4, .last = 1});
  EXPECT_EQ(texts(reading.entries), Texts({"other 1"}));
  EXPECT_EQ(reading.next, 4u);
  reading = ring.read({.most = 0});
  EXPECT_TRUE(reading.entries.empty());
  EXPECT_EQ(reading.next, 0u);
}

}  // namespace
