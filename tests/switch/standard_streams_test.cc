// SPDX-License-Identifier: BSD-3-Clause
//
// Standard output and error that are closed, full, or that nobody reads.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "switch/terminal/standard_error.h"
#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"
#include "tests/switch/notify_socket.h"

namespace {

using namespace std::chrono_literals;
using openflow_test::ScratchDir;

class StandardStreams : public testing::Test {
 protected:
  StandardStreams() {
    openflow_test::writeFile(dir_ / "good.txt", "actions=drop\n");
    openflow_test::writeFile(dir_ / "bad.txt", "actions=fly\n");
  }

  int statusOf(const std::string& arguments) const {
    const std::string command =
        "cd " + dir_.path().string() + " && " OFSWITCH " " + arguments;
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  ScratchDir dir_;
};

// What it could not tell shows in its status, and in nothing before its end.
void expectToRunOnAndFailAtItsEnd(pid_t child) {
  std::this_thread::sleep_for(200ms);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "it runs on";
  kill(child, SIGTERM);
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 1) << "lines are lost";
}

TEST_F(StandardStreams, AMessageThatNobodyTakesChangesNoExitStatus) {
  for (const std::string lost : {" 2> /dev/full", " 2>&-"}) {
    EXPECT_EQ(statusOf("check good.txt > /dev/null" + lost), 0) << lost;
    EXPECT_EQ(statusOf("check bad.txt > /dev/null" + lost), 1) << lost;
    EXPECT_EQ(
        statusOf("check --build --module nope.so good.txt > /dev/null" + lost),
        1)
        << lost;
    EXPECT_EQ(statusOf("chek good.txt" + lost), 2) << lost;
  }
}

TEST_F(StandardStreams, AnOutputThatNobodyTakesIsAFailure) {
  EXPECT_EQ(statusOf("check good.txt > /dev/full 2> err"), 1);
  EXPECT_EQ(openflow_test::readFile(dir_ / "err"),
            "ofswitch: standard output: No space left on device\n");
  EXPECT_EQ(statusOf("check good.txt >&- 2> err"), 1);
  EXPECT_EQ(openflow_test::readFile(dir_ / "err"),
            "ofswitch: standard output: Bad file descriptor\n");
}

// What is missing stays so: it must not get another number than its own.
TEST(FillStandardStreams, EndsWithTheFirstThatCannotBeFilled) {
  const pid_t child = fork();
  if (child == 0) {
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    const rlimit none = {0, files.rlim_max};
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    setrlimit(RLIMIT_NOFILE, &none);
    ofswitch::fillStandardStreams();
    setrlimit(RLIMIT_NOFILE, &files);
    const bool areMissing =
        fcntl(STDIN_FILENO, F_GETFD) < 0 && fcntl(STDOUT_FILENO, F_GETFD) < 0;
    ofswitch::fillStandardStreams();
    const bool areFilled =
        (fcntl(STDIN_FILENO, F_GETFL) & O_ACCMODE) == O_WRONLY &&
        (fcntl(STDOUT_FILENO, F_GETFL) & O_ACCMODE) == O_RDONLY;
    _exit(areMissing && areFilled ? 7 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

// The first file that is opened would get the number of the closed one.
TEST_F(StandardStreams, MessagesDoNotGoIntoFiles) {
  openflow_test::writeFile(
      dir_ / "in.pcap",
      openflow_test::captureBytes({{.ns = 1, .bytes = std::string(60, 'x')}}));
  openflow_test::writeFile(dir_ / "note.txt", "actions=output:2,output:9\n");
  const std::string replay =
      "replay --flows note.txt --in 1=in.pcap --ports 1,2 > /dev/null ";
  EXPECT_EQ(statusOf(replay + "--out-dir open 2> err"), 0);
  EXPECT_THAT(openflow_test::readFile(dir_ / "err"),
              testing::HasSubstr("port 9 is not connected"));
  EXPECT_EQ(statusOf(replay + "--out-dir closed 2>&-"), 0);
  EXPECT_EQ(openflow_test::readFile(dir_ / "closed" / "port-2.pcap"),
            openflow_test::readFile(dir_ / "open" / "port-2.pcap"));
}

// As with "ofswitch run 2>&1 | tee log" whose tee is gone. The controller's
// packets leave a line each on standard error.
TEST_F(StandardStreams, ASwitchOutlivesWhoReadsItsMessages) {
  openflow_test::writeFile(dir_ / "flows.txt", "actions=controller\n");
  const std::string config = dir_ / "switch.yaml";
  openflow_test::writeFile(config,
                           "ports: [{number: 1, device: net_null0}]\n"
                           "memory: {mb: 128, buffers: 4095}\n"
                           "flows: flows.txt\n"
                           "control: {socket: control.sock}\n"
                           "metrics: false\n"
                           "log: {Controller: 5}\n");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGPIPE, SIG_DFL);
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    execl(OFSWITCH, OFSWITCH, "run", "-c", config.c_str(), nullptr);
    _exit(127);
  }
  close(ends[1]);
  std::string text;
  char part[4096];
  while (text.find("packet for the controller") == std::string::npos) {
    const ssize_t length = read(ends[0], part, sizeof(part));
    ASSERT_GT(length, 0) << text;
    text.append(part, static_cast<size_t>(length));
  }
  close(ends[0]);
  expectToRunOnAndFailAtItsEnd(child);
}

// A buffer of messages is written when it is full, before all has started.
TEST_F(StandardStreams, ASwitchStartsThoughNobodyReadsWhatItTells) {
  openflow_test::writeFile(
      dir_ / "switch.yaml",
      "ports: [{number: 1, device: net_ring0, name: " + std::string(5000, 'x') +
          "}]\n"
          "memory: {mb: 128, buffers: 4095}\n"
          "control: {socket: control.sock}\n"
          "metrics: false\n");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  const std::string config = dir_ / "switch.yaml";
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGPIPE, SIG_DFL);
    dup2(ends[1], STDOUT_FILENO);
    execl(OFSWITCH, OFSWITCH, "run", "-c", config.c_str(), nullptr);
    _exit(127);
  }
  close(ends[1]);
  const std::string door = dir_ / "control.sock";
  const auto end =
      std::chrono::steady_clock::now() + openflow_test::timeLimit(20s);
  while (!std::filesystem::exists(door) &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_EQ(statusOf("stats --socket control.sock > /dev/null"), 0);
  expectToRunOnAndFailAtItsEnd(child);
}

// A pipe that is full when lines are to be written, and read only afterwards.
TEST_F(StandardStreams, ASwitchTellsAtItsEndThatLinesWereLost) {
  const std::string config = dir_ / "switch.yaml";
  openflow_test::writeFile(config,
                           "ports: [{number: 1, device: net_null0}]\n"
                           "memory: {mb: 128, buffers: 4095}\n"
                           "control: {socket: control.sock}\n"
                           "metrics: false\n");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  const std::string page(4096, '.');
  while (write(ends[1], page.data(), page.size()) > 0) {
  }
  const std::string path = dir_ / "notify";
  const ofswitch::NotifySocket manager(path);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    dup2(open((dir_ / "err").c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    execl(OFSWITCH, OFSWITCH, "run", "-c", config.c_str(), nullptr);
    _exit(127);
  }
  close(ends[1]);
  EXPECT_EQ(manager.told(), "READY=1");  // all that it says first was lost
  std::string all(1 << 20, '\0');
  EXPECT_GT(read(ends[0], all.data(), all.size()), 0);
  expectToRunOnAndFailAtItsEnd(child);
  EXPECT_EQ(openflow_test::readFile(dir_ / "err"),
            "ofswitch: standard output: some of it could not be written\n");
  close(ends[0]);
}

}  // namespace
