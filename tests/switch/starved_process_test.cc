// SPDX-License-Identifier: BSD-3-Clause
//
// Processes that the system gives less than they need, or a place that is gone.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "tests/captures/capture_files.h"

namespace {

using openflow_test::ScratchDir;

class StarvedProcess : public testing::Test {
 protected:
  StarvedProcess() {
    openflow_test::writeFile(dir_ / "switch.yaml",
                             "ports: [{number: 1, device: net_null0}]\n"
                             "control: {socket: control.sock}\n"
                             "metrics: false\n");
  }

  // What a command writes to standard error, which has to fail; `limits` are
  // the shell's.
  std::string errorOf(const std::string& limits, const std::string& arguments) {
    const std::string command = "cd " + dir_.path().string() + " && mkdir cwd" +
                                " && cd cwd && " + limits + " && exec " +
                                OFSWITCH " " + arguments + " 2> " +
                                (dir_ / "err").string();
    const int status = std::system(command.c_str());
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    return openflow_test::readFile(dir_ / "err");
  }

  ScratchDir dir_;
};

TEST_F(StarvedProcess, TellsThatItsFolderIsGone) {
  EXPECT_EQ(errorOf("rmdir ../cwd", "run -c ../switch.yaml"),
            "ofswitch: control socket ../control.sock: the current folder is "
            "gone; start in another one, or give an absolute path\n");
}

// ThreadSanitizer needs the places in memory that a large stack moves.
#ifndef __SANITIZE_THREAD__

// No thread can have a stack of 127 TB.
TEST_F(StarvedProcess, TellsThatItCannotStartAThread) {
  EXPECT_EQ(errorOf("ulimit -s 136365211648", "run -c ../switch.yaml"),
            "ofswitch: cannot start a thread: Resource temporarily "
            "unavailable; there may be too many of them (ulimit -u, TasksMax "
            "of a service), or their stacks be too large (ulimit -s)\n");
}

// Sanitizers take more than that before the program begins.
#ifndef __SANITIZE_ADDRESS__

TEST_F(StarvedProcess, TellsThatItsMemoryIsUsedUp) {
  constexpr int kFlows = 300'000;
  std::string flows;
  for (int i = 0; i < kFlows; i++) {
    flows += "table=" + std::to_string(i % 32) +
             ",tcp,tp_dst=" + std::to_string(i % 65536) + ",actions=drop\n";
  }
  openflow_test::writeFile(dir_ / "flows.txt", flows);
  EXPECT_EQ(errorOf("ulimit -v 300000", "check ../flows.txt"),
            "ofswitch: out of memory: this takes more than the machine has "
            "left, or than ulimit -v allows\n");
}

#endif
#endif

}  // namespace
