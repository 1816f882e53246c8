// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>

#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"

namespace ofswitch {

// `ofswitch run` as a process of its own. `files` is how many it may have open,
// of which none but the standard ones is when it starts; if it is not given, as
// many as this process.
class RunningSwitch {
 public:
  RunningSwitch(const std::string& config, const std::string& log,
                const char* option = nullptr, std::optional<rlim_t> files = {})
      : log_(log) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
      if (files.has_value()) {
        close_range(STDERR_FILENO + 1, UINT_MAX, 0);
        const rlimit limit = {*files, *files};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
          perror("setrlimit");
          _exit(127);
        }
      }
      execl(OFSWITCH, OFSWITCH, "run", "-c", config.c_str(), option, nullptr);
      _exit(127);
    }
    close(fd);
  }
  ~RunningSwitch() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  std::string log() const { return openflow_test::readFile(log_); }

  bool waitFor(const std::string& text) const {
    const auto deadline = std::chrono::steady_clock::now() +
                          openflow_test::timeLimit(std::chrono::seconds(20));
    while (std::chrono::steady_clock::now() < deadline) {
      if (log().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  void send(int signal) const {
    if (pid_ > 0) kill(pid_, signal);
  }

  // Sends the signal, if any, and answers the exit status.
  int end(int signal) {
    if (signal != 0) send(signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  std::string log_;
  pid_t pid_ = -1;
};

}  // namespace ofswitch
