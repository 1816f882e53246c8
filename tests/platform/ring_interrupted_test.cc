// SPDX-License-Identifier: BSD-3-Clause
// A writer that is stopped in the middle of a statement: its text begins in a
// page that cannot be read, and the handler of the fault holds it until the
// test has done what it wants to do meanwhile, and made the page readable.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/ringlog/ring.h"

namespace {

using Ringlog::Argument;
using Ringlog::Reading;
using Ringlog::Ring;

class RingInterrupted : public testing::Test {
 protected:
  RingInterrupted() {
    pageSize_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    page_ = static_cast<char*>(mmap(nullptr, pageSize_, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    memset(page_, 'p', pageSize_);
    mprotect(page_, pageSize_, PROT_NONE);
    stopped_ = false;
    goOn_ = false;
    struct sigaction action {};
    action.sa_handler = holdWriter;
    sigaction(SIGSEGV, &action, &oldAction_);
  }
  ~RingInterrupted() override {
    sigaction(SIGSEGV, &oldAction_, nullptr);
    munmap(page_, pageSize_);
  }

  // Writes `first` and 200 bytes of the page, three cells in all when it is a
  // number, and runs `meanwhile` when it is stored and the rest is not.
  template <class T = int>
  void writeInterrupted(const std::function<void()>& meanwhile,
                        const T& first = 1) {
    std::thread writer([&] {
      const std::array arguments{
          Argument::of(first), Argument::ofText(std::string_view(page_, 200))};
      ring_.write(Ringlog::internSite("Test", 2, "f", "%s %s"), arguments);
    });
    while (!stopped_) {
      std::this_thread::yield();
    }
    meanwhile();
    mprotect(page_, pageSize_, PROT_READ);
    goOn_ = true;
    writer.join();
  }

  void write(int number) {
    const std::array arguments{Argument::of(number)};
    ring_.write(Ringlog::internSite("Test", 2, "f", "number %s"), arguments);
  }

  static std::vector<std::string> texts(
      const std::vector<Ringlog::Entry>& entries) {
    std::vector<std::string> texts;
    for (const auto& entry : entries) {
      texts.push_back(entry.text);
    }
    return texts;
  }

  Ring ring_{64};
  const std::string interrupted_ = "1 " + std::string(200, 'p');

 private:
  static void holdWriter(int) {
    if (stopped_.exchange(true)) {
      abort();  // a fault of the test itself
    }
    while (!goOn_) {
    }
  }

  static inline std::atomic<bool> stopped_;
  static inline std::atomic<bool> goOn_;
  size_t pageSize_;
  char* page_;
  struct sigaction oldAction_;
};

TEST_F(RingInterrupted, AReaderWaitsInFrontOfAnUnfinishedStatement) {
  write(10);
  Reading meanwhile;
  std::vector<Ringlog::Entry> all;
  writeInterrupted([&] {
    write(11);
    meanwhile = ring_.readSince(0);
    all = ring_.read();
  });
  EXPECT_EQ(texts(meanwhile.entries), std::vector<std::string>({"number 10"}));
  EXPECT_EQ(meanwhile.next, 1u);
  EXPECT_EQ(texts(all), std::vector<std::string>({"number 10", "number 11"}));
  EXPECT_EQ(texts(ring_.readSince(meanwhile.next).entries),
            std::vector<std::string>({interrupted_, "number 11"}));
}

// Its head is there already, and a part of what follows.
TEST_F(RingInterrupted, AReaderTakesNoHalfOfAStatement) {
  const std::string first(150, 'a');  // reaches into the second cell
  write(10);
  Reading meanwhile;
  std::vector<Ringlog::Entry> all;
  writeInterrupted(
      [&] {
        write(11);
        meanwhile = ring_.readSince(0);
        all = ring_.read();
      },
      first);
  EXPECT_EQ(texts(meanwhile.entries), std::vector<std::string>({"number 10"}));
  EXPECT_EQ(meanwhile.next, 1u);
  EXPECT_EQ(texts(all), std::vector<std::string>({"number 10", "number 11"}));
  EXPECT_EQ(texts(ring_.readSince(meanwhile.next).entries),
            std::vector<std::string>(
                {first + " " + std::string(200, 'p'), "number 11"}));
}

TEST_F(RingInterrupted, AReaderDoesNotWaitForever) {
  Reading before, after;
  writeInterrupted([&] {
    for (int i = 0; i < 28; i++) {
      write(i);
    }
    before = ring_.readSince(0);
    for (int i = 28; i < 31; i++) {
      write(i);
    }
    after = ring_.readSince(0);
  });
  EXPECT_TRUE(before.entries.empty());
  // Its third and last cell, position 2, is half a turn old.
  EXPECT_EQ(after.entries.size(), 31u);
  EXPECT_EQ(after.next, 34u);
}

TEST_F(RingInterrupted, OthersGoOnAndLeaveItsCellAlone) {
  std::vector<Ringlog::Entry> meanwhile;
  writeInterrupted([&] {
    for (int i = 0; i < 1000; i++) {
      write(i);
    }
    meanwhile = ring_.read();
  });
  // Of the last turn only the statement that fell on the writer's cell is
  // missing.
  EXPECT_EQ(meanwhile.size(), 63u);
  EXPECT_EQ(meanwhile.back().text, "number 999");
  // The writer comes back a dozen turns late: its statement is gone, and it
  // must not touch the cells that others filled.
  const std::vector<std::string> late = texts(ring_.read());
  EXPECT_EQ(late, texts(meanwhile));
  // The cell is of use again.
  for (int i = 0; i < 64; i++) {
    write(i);
  }
  EXPECT_EQ(ring_.read().size(), 64u);
}

}  // namespace
