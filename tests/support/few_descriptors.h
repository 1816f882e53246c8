// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace openflow_test {

// While it lives, only `count` more descriptors can be had.
class FewDescriptors {
 public:
  explicit FewDescriptors(rlim_t count) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    rlimit few = before_;
    few.rlim_cur = static_cast<rlim_t>(nextFree()) + count;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  // Fills the gaps below, so that there is no other.
  int nextFree() {
    int highest = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
      highest = std::max(highest, std::stoi(entry.path().filename()));
    }
    int fd = open("/dev/null", O_RDONLY);
    while (fd >= 0 && fd <= highest) {
      fillers_.emplace_back(fd);
      fd = open("/dev/null", O_RDONLY);
    }
    close(fd);
    return fd;
  }

  struct Filler {
    explicit Filler(int number) : fd(number) {}
    Filler(Filler&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    ~Filler() {
      if (fd >= 0) close(fd);
    }
    int fd;
  };

  rlimit before_{};
  std::vector<Filler> fillers_;
};

}  // namespace openflow_test
