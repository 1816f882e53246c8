// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"

namespace ofswitch {

// `ofswitch run` as a process of its own, which may have that many files open.
class RunningSwitch {
 public:
  RunningSwitch(const std::string& config, const std::string& log,
                const char* option = nullptr, rlim_t files = RLIM_INFINITY)
      : log_(log) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
      const rlimit few = {files, files};
      if (files != RLIM_INFINITY && setrlimit(RLIMIT_NOFILE, &few) != 0) {
        _exit(127);
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

  void send(int signal) const { kill(pid_, signal); }

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
