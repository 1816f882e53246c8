// SPDX-License-Identifier: BSD-3-Clause
#include "switch/terminal/progress.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "switch/terminal/standard_error.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 2s;
constexpr auto kInterval = 100ms;
constexpr int kWidth = 40;

}  // namespace

Progress::Progress(std::string what)
    : what_(std::move(what)),
      terminal_(isatty(STDERR_FILENO) == 1),
      start_(Clock::now()),
      last_(start_) {}

Progress::~Progress() {
  if (shown_) {
    printError("\r\033[K");
  }
}

void Progress::show(uint64_t done, uint64_t total) {
  const auto now = Clock::now();
  if (!terminal_ || now - start_ < kPatience || now - last_ < kInterval) {
    return;
  }
  last_ = now;
  shown_ = true;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  if (total == 0) {
    printError("\r{}: {:.0f} s\033[K", what_, seconds);
  } else {
    const double part =
        std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    const int full = static_cast<int>(part * kWidth);
    printError("\r{} [{:#<{}}{: <{}}] {:3.0f}% {:.0f} s\033[K", what_, "", full,
               "", kWidth - full, part * 100, seconds);
  }
  fflush(stderr);
}

}  // namespace ofswitch
