// SPDX-License-Identifier: BSD-3-Clause
#include "platform/ringlog/ring.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/allocation_counter.h"
#include "tests/platform/ring_statements.h"

namespace {

using openflow_test::numberSite;
using openflow_test::texts;
using openflow_test::write;
using Ringlog::Argument;
using Ringlog::Entry;
using Ringlog::Reading;
using Ringlog::Ring;
using Ringlog::Site;

// Text of a length and content that follow from a number.
std::string pattern(unsigned number) {
  return std::string(number * 37 % 400, static_cast<char>('a' + number % 26));
}

TEST(Ring, StartsEmpty) {
  Ring ring;
  EXPECT_EQ(ring.numCells(), 16384u);
  EXPECT_TRUE(ring.read().empty());
  EXPECT_TRUE(ring.readSince(0).entries.empty());
  EXPECT_EQ(ring.readSince(0).next, 0u);
}

TEST(Ring, RoundsItsSizeUp) {
  EXPECT_EQ(Ring(1).numCells(), 64u);
  EXPECT_EQ(Ring(64).numCells(), 64u);
  EXPECT_EQ(Ring(65).numCells(), 128u);
}

TEST(Ring, KeepsWhatAStatementSays) {
  Ring ring(64);
  const Site& site =
      Ringlog::internSite("OpenFlow", 5, "addFlow", "%s %s %s %s %s");
  const auto before = std::chrono::system_clock::now();
  write(ring, site, -1, uint8_t{200}, true, "text", 0.25);
  const auto after = std::chrono::system_clock::now();
  const std::vector<Entry> entries = ring.read();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].text, "-1 200 1 text 0.25");
  EXPECT_EQ(entries[0].facility, "OpenFlow");
  EXPECT_EQ(entries[0].level, 5u);
  EXPECT_EQ(entries[0].function, "addFlow");
  EXPECT_EQ(entries[0].thread, static_cast<uint32_t>(gettid()));
  EXPECT_EQ(entries[0].position, 0u);
  // The time is computed from the processor's counter.
  EXPECT_GE(entries[0].time, before - std::chrono::milliseconds(5));
  EXPECT_LE(entries[0].time, after + std::chrono::milliseconds(5));
}

// Also when it is read much later.
TEST(Ring, KeepsTheTimeOfAStatement) {
  Ring ring(64);
  const auto before = std::chrono::system_clock::now();
  write(ring, numberSite(), 1);
  const auto after = std::chrono::system_clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const auto time = ring.read().at(0).time;
  EXPECT_GE(time, before - std::chrono::milliseconds(5));
  EXPECT_LE(time, after + std::chrono::milliseconds(5));
}

TEST(Ring, KeepsWhichThreadItWas) {
  Ring ring(64);
  uint32_t thread = 0;
  std::thread([&] {
    thread = static_cast<uint32_t>(gettid());
    write(ring, numberSite(), 1);
  }).join();
  write(ring, numberSite(), 2);
  const std::vector<Entry> entries = ring.read();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].thread, thread);
  EXPECT_EQ(entries[1].thread, static_cast<uint32_t>(gettid()));
}

TEST(Ring, ArgumentsAreCopied) {
  Ring ring(64);
  const Site& site = Ringlog::internSite("Test", 2, "f", "%s");
  std::string text = "as it was";
  write(ring, site, text);
  text = "overwritten";
  EXPECT_EQ(ring.read()[0].text, "as it was");
}

TEST(Ring, KeepsTheOrder) {
  Ring ring(64);
  for (int i = 0; i < 10; i++) {
    write(ring, numberSite(), i);
  }
  const std::vector<Entry> entries = ring.read();
  ASSERT_EQ(entries.size(), 10u);
  for (size_t i = 0; i < 10; i++) {
    EXPECT_EQ(entries[i].text, "number " + std::to_string(i));
    EXPECT_EQ(entries[i].position, i);
    if (i > 0) {
      EXPECT_GE(entries[i].time, entries[i - 1].time);
    }
  }
}

TEST(Ring, OverwritesTheOldest) {
  Ring ring(64);
  for (int i = 0; i < 1000; i++) {
    write(ring, numberSite(), i);
  }
  const std::vector<Entry> entries = ring.read();
  ASSERT_EQ(entries.size(), 64u);
  EXPECT_EQ(entries.front().text, "number 936");
  EXPECT_EQ(entries.front().position, 936u);
  EXPECT_EQ(entries.back().text, "number 999");
}

TEST(Ring, LongTextTakesSeveralCells) {
  Ring ring(64);
  const Site& site = Ringlog::internSite("Test", 2, "f", "%s|%s|%s");
  // Around the edges of a word, of the first cell, and of the cells behind it.
  for (const size_t length : {0, 1, 7, 8, 9, 63, 64, 65, 72, 73, 183, 184, 185,
                              192, 193, 1000, 6000}) {
    std::string text;
    for (size_t i = 0; i < length; i++) {
      text.push_back(static_cast<char>('!' + i % 90));
    }
    write(ring, site, 1, text, 2);
    EXPECT_EQ(ring.read().back().text, "1|" + text + "|2") << length;
  }
}

TEST(Ring, AHalfOverwrittenStatementIsGone) {
  Ring ring(64);
  const Site& site = Ringlog::internSite("Test", 2, "f", "%s");
  write(ring, site, std::string(1000, 'x'));  // 9 cells
  for (int i = 0; i < 55; i++) {
    write(ring, numberSite(), i);
  }
  EXPECT_EQ(ring.read().size(), 56u);
  write(ring, numberSite(), 55);
  const std::vector<Entry> entries = ring.read();
  EXPECT_EQ(entries.size(), 56u);
  EXPECT_EQ(entries.front().text, "number 0");
}

TEST(Ring, CutsWhatIsTooLong) {
  Ring ring(64);
  const Site& site = Ringlog::internSite("Test", 2, "f", "%s|%s|%s");
  const std::string text(10000, 'x');
  write(ring, site, 1, text, 2);
  // 776 words, less the two numbers and the length.
  EXPECT_EQ(ring.read().back().text,
            "1|" + std::string(773 * 8, 'x') + "...[cut]|2");
  // The first takes all, the others keep their length word.
  write(ring, site, text, text, "yes");
  EXPECT_EQ(ring.read().back().text,
            std::string(773 * 8, 'x') + "...[cut]|...[cut]|...[cut]");
  // What just fits is not cut.
  write(ring, site, 1, std::string(773 * 8, 'y'), 2);
  EXPECT_EQ(ring.read().back().text, "1|" + std::string(773 * 8, 'y') + "|2");
  // Each has 52 cells, of which the ring has 64.
  EXPECT_EQ(ring.read().size(), 1u);
  EXPECT_EQ(ring.read()[0].position, 104u);
}

TEST(Ring, CutsWhatLeavesTooLittleForOthers) {
  Ring ring(64);
  const Site& site = Ringlog::internSite("Test", 2, "f", "%s|%s|%s");
  for (const size_t tooMany : {1, 8, 9, 16, 17}) {
    write(ring, site, 1, std::string(773 * 8 + tooMany, 'z'), 2);
    EXPECT_EQ(ring.read().back().text,
              "1|" + std::string(773 * 8, 'z') + "...[cut]|2")
        << tooMany;
  }
}

TEST(Ring, HoldsSixteenArguments) {
  Ring ring(64);
  const Site& site =
      Ringlog::internSite("Test", 2, "f", "%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s");
  write(ring, site, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  EXPECT_EQ(ring.read()[0].text, "0123456789101112131415");
  write(ring, site, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
  EXPECT_EQ(ring.read()[1].text, "0123456789101112131415");
  write(ring, site, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, "x");
  EXPECT_EQ(ring.read()[2].text, "0123456789101112131415");
}

TEST(Ring, WritingDoesNotAllocate) {
  Ring ring(64);
  const Site& site = Ringlog::internSite("Test", 2, "f", "%s %s");
  const std::string text(10000, 'x');
  const int before = countAllocations();
  for (int i = 0; i < 1000; i++) {
    write(ring, site, i, "short");
    write(ring, site, i, text);
  }
  EXPECT_EQ(countAllocations(), before);
}

constexpr unsigned kWriters = 4;

// Writer w's i-th statement: its numbers, and text that follows from them.
void writeStatements(Ring& ring, unsigned writer, unsigned count) {
  const Site& site = Ringlog::internSite("Test", 2, "f", "%s %s %s");
  for (unsigned i = 0; i < count; i++) {
    write(ring, site, writer, i, pattern(writer + i));
  }
}

// Checks that entries are whole, in order for each writer, and right.
class Checker {
 public:
  void check(const std::vector<Entry>& entries) {
    for (const Entry& entry : entries) {
      unsigned writer, number;
      int end = 0;
      ASSERT_EQ(sscanf(entry.text.c_str(), "%u %u %n", &writer, &number, &end),
                2);
      ASSERT_LT(writer, kWriters);
      ASSERT_EQ(entry.text.substr(end), pattern(writer + number));
      ASSERT_TRUE(last_.count(writer) == 0 || last_[writer] < number);
      last_[writer] = number;
      count_++;
    }
  }
  size_t count() const { return count_; }

 private:
  std::map<unsigned, unsigned> last_;
  size_t count_ = 0;
};

TEST(Ring, SeveralWritersLoseNothingWhileThereIsRoom) {
  Ring ring;
  std::vector<std::thread> writers;
  for (unsigned w = 0; w < kWriters; w++) {
    writers.emplace_back([&ring, w] { writeStatements(ring, w, 1000); });
  }
  Checker follower;
  uint64_t position = 0;
  while (follower.count() < kWriters * 1000) {
    const Reading reading = ring.readSince(position);
    position = reading.next;
    ASSERT_NO_FATAL_FAILURE(follower.check(reading.entries));
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
  Checker whole;
  whole.check(ring.read());
  EXPECT_EQ(whole.count(), kWriters * 1000);
}

TEST(Ring, AReaderSeesOnlyWholeStatementsWhileTheRingTurns) {
  Ring ring(64);
  std::atomic<unsigned> running{kWriters};
  std::vector<std::thread> writers;
  for (unsigned w = 0; w < kWriters; w++) {
    writers.emplace_back([&, w] {
      writeStatements(ring, w, 20000);
      running--;
    });
  }
  Checker follower;
  uint64_t position = 0;
  while (running > 0) {
    const Reading reading = ring.readSince(position);
    position = reading.next;
    ASSERT_NO_FATAL_FAILURE(follower.check(reading.entries));
    Checker once;
    ASSERT_NO_FATAL_FAILURE(once.check(ring.read()));
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
  Checker last;
  last.check(ring.read());
  EXPECT_GE(last.count(), 10u);
}

// Statements of one cell, so that nothing but the cell's own state tells that
// it was overwritten while it was being copied.
TEST(Ring, ACellIsNeverAMixtureOfTwoStatements) {
  Ring ring(64);
  const Site& site =
      Ringlog::internSite("Test", 2, "f", "%s %s %s %s %s %s %s %s");
  std::atomic<bool> done{false};
  std::vector<std::thread> writers;
  for (unsigned w = 0; w < 2; w++) {
    writers.emplace_back([&, w] {
      for (uint64_t i = w; !done; i += 2) {
        write(ring, site, i, i, i, i, i, i, i, i);
      }
    });
  }
  size_t whole = 0;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
  while (std::chrono::steady_clock::now() < deadline) {
    for (const Entry& entry : ring.read()) {
      const std::string number = entry.text.substr(0, entry.text.find(' '));
      std::string expected = number;
      for (int i = 1; i < 8; i++) {
        expected += " " + number;
      }
      ASSERT_EQ(entry.text, expected);
      whole++;
    }
  }
  done = true;
  for (std::thread& writer : writers) {
    writer.join();
  }
  EXPECT_GT(whole, 0u);
}

TEST(Ring, TheProcessHasOne) {
  EXPECT_EQ(&Ring::instance(), &Ring::instance());
  EXPECT_EQ(Ring::instance().numCells(), Ring::kDefaultCells);
  const uint64_t before = Ring::instance().readSince(0).next;
  const std::array arguments{Argument::of(77)};
  Ringlog::write(numberSite(), arguments);
  EXPECT_EQ(texts(Ring::instance().readSince(before).entries),
            std::vector<std::string>({"number 77"}));
}

}  // namespace
