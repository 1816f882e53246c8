// SPDX-License-Identifier: BSD-3-Clause
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/captures/capture_files.h"
#include "tests/support/huge_pages.h"
#include "tests/support/listener.h"
#include "tests/support/time_limit.h"
#include "tests/switch/notify_socket.h"
#include "tests/switch/running_switch.h"

namespace {

using namespace std::chrono_literals;
using ofswitch::RunningSwitch;
using openflow_test::ScratchDir;
using openflow_test::timeLimit;
using testing::AnyOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

class RunCommand : public testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    openflow_test::writeFile(dir_ / name, text);
    return dir_ / name;
  }

  ScratchDir dir_;
};

constexpr char kConfig[] =
    "ports:\n"
    "  - {number: 1, device: net_null0}\n"
    "  - {number: 2, device: net_null1}\n"
    "workers: 2\n"
    "memory: {mb: 256}\n"
    "flows: flows.txt\n"
    "control: {socket: control.sock}\n"
    "metrics: false\n";

// kConfig with something else in place of `old`.
std::string configWith(const std::string& old, const std::string& other) {
  std::string text = kConfig;
  return text.replace(text.find(old), old.size(), other);
}

TEST_F(RunCommand, EndsWithinTwoSecondsAndStartsAgain) {
  write("flows.txt", "in_port=1,actions=output:2\nin_port=2,actions=drop\n");
  const std::string config = write("switch.yaml", kConfig);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    RunningSwitch process(config, dir_ / "log");
    ASSERT_TRUE(process.waitFor("running: 2 ports, 2 workers, 2 flows\n"))
        << process.log();
    std::this_thread::sleep_for(100ms);
    const auto start = Clock::now();
    EXPECT_EQ(process.end(signal), 0);
    EXPECT_LT(Clock::now() - start, timeLimit(2s));
    const std::string log = process.log();
    EXPECT_EQ(log.find("note: memory without hugepages: ") != log.npos,
              !openflow_test::kernelMakesHugePages())
        << log;
    EXPECT_THAT(log, ContainsRegex("port 2 port2: net_null1 \\(net_null\\), "
                                   "[0-9A-Fa-f:]{17}, 1 queue, MTU 1500, link "
                                   "up\n"));
    EXPECT_THAT(log, Not(HasSubstr("port 0")));
    unsigned long received = 0;
    unsigned long sent = 0;
    unsigned long dropped = 0;
    ASSERT_EQ(sscanf(log.c_str() + log.rfind("stopped: "),
                     "stopped: %lu packets received, %lu sent, %lu dropped",
                     &received, &sent, &dropped),
              3)
        << log;
    EXPECT_GT(received, 0);
    EXPECT_GT(sent, 0);
    EXPECT_GT(dropped, 0);
    EXPECT_EQ(received, sent + dropped);
  }
}

TEST_F(RunCommand, OutlivesItsTerminalIfItIsToldTo) {
  write("flows.txt", "");
  const std::string config = write("switch.yaml", kConfig);
  const auto before = signal(SIGHUP, SIG_IGN);  // as by nohup(1)
  RunningSwitch process(config, dir_ / "log");
  signal(SIGHUP, before);
  ASSERT_TRUE(process.waitFor("running: 2 ports, 2 workers, 0 flows\n"))
      << process.log();
  process.send(SIGHUP);
  std::this_thread::sleep_for(200ms);
  EXPECT_THAT(process.log(), Not(HasSubstr("stopped")));
  EXPECT_EQ(process.end(SIGTERM), 0);
}

// UndefinedBehaviorSanitizer, which comes with it, looks at pointers through
// descriptors of its own.
#ifndef __SANITIZE_ADDRESS__

// What it would need to be stopped: a switch that has started keeps running.
TEST_F(RunCommand, DoesNotStartWithoutDescriptorsForItsEnd) {
  write("flows.txt", "");
  const std::string config = write("switch.yaml", kConfig);
  constexpr rlim_t kFiles = 4;  // enough to read the configuration
  RunningSwitch process(config, dir_ / "log", nullptr, kFiles);
  EXPECT_EQ(process.end(0), 1);
  EXPECT_EQ(process.log(),
            "ofswitch: cannot wait for signals: Too many open files; allow "
            "more of them (ulimit -n, LimitNOFILE of a service)\n");
}

#endif

TEST_F(RunCommand, TellsTheServiceManagerHowFarItIs) {
  write("flows.txt", "in_port=1,actions=output:2\n");
  const std::string config = write("switch.yaml", kConfig);
  for (const std::string& path :
       {(dir_ / "notify").string(), "@" + (dir_ / "notify").string()}) {
    const ofswitch::NotifySocket manager(path);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    RunningSwitch process(config, dir_ / "log");
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(manager.told(), "READY=1");
    EXPECT_THAT(process.log(),
                HasSubstr("running: 2 ports, 2 workers, 1 flow"));
    EXPECT_EQ(process.end(SIGTERM), 0);
    EXPECT_EQ(manager.told(), "STOPPING=1");
  }
}

// As no socket can have it.
TEST_F(RunCommand, RunsWithoutAServiceManagerWhosePathIsTooLong) {
  write("flows.txt", "");
  const std::string config = write("switch.yaml", kConfig);
  setenv("NOTIFY_SOCKET", ("/" + std::string(200, 'x')).c_str(), 1);
  RunningSwitch process(config, dir_ / "log");
  unsetenv("NOTIFY_SOCKET");
  ASSERT_TRUE(process.waitFor("running: 2 ports, 2 workers, 0 flows\n"))
      << process.log();
  EXPECT_EQ(process.end(SIGTERM), 0);
}

struct Refusal {
  const char* name;
  const char* old;    // of kConfig
  const char* other;  // in its place
  const char* error;  // how the only line begins; DIR is the folder of it all
};

const Refusal kRefusals[] = {
    {"UnknownKey", "ports:", "prots:",
     "DIR/switch.yaml:1: unknown key \"prots\", did you mean \"ports\"?\n"},
    {"NoSuchCore", "workers: 2", "workers: [0, 1023]",
     "DIR/switch.yaml:4: workers: worker 1: "},
    {"MoreMemoryThanThereIs", "mb: 256", "mb: 1048576",
     "1048576 MB of memory for packets, flows and classifiers: the machine "
     "has "},
    {"NoSuchDriver", "net_null1", "net_nul1",
     "DIR/switch.yaml:3: port 'port2', device 'net_nul1': no driver of that "
     "name: "},
    // DPDK says so when it fails to take a card that it was not told of.
    {"NoSuchCard", "net_null1", "\"0000:fe:1f.7\"",
     "DIR/switch.yaml:3: port 'port2', device '0000:fe:1f.7': there is no PCI "
     "device at 0000:fe:1f.7; see: dpdk-devbind.py --status\n"},
    {"NoSuchFlowFile", "flows.txt", "\n  - flows.txt\n  - none.txt",
     "DIR/switch.yaml:8: DIR/none.txt: cannot open: No such file or "
     "directory\n"},
    {"NoSuchModule", "metrics: false", "module: none.so",
     "DIR/switch.yaml:8: DIR/none.so: No such file or directory\n"},
    {"NoFolderForTheCapture", "metrics: false",
     "controller:\n  capture: none/controller.pcap",
     "DIR/switch.yaml:9: controller.capture: DIR/none/controller.pcap: No such "
     "file or directory\n"},
    {"NoSuchCertificate", "{socket: control.sock}",
     "\n  address: 127.0.0.1:0\n"
     "  tls: {certificate: c.pem, key: k.pem, client_ca: a.pem}",
     "DIR/switch.yaml:9: control.tls.certificate: DIR/c.pem: cannot open: No "
     "such file or directory\n"},
};

class RunRefusal : public RunCommand,
                   public testing::WithParamInterface<Refusal> {};

TEST_P(RunRefusal, NamesThePlaceAndWhatIsWrong) {
  const Refusal& row = GetParam();
  write("flows.txt", "");
  const std::string config =
      write("switch.yaml", configWith(row.old, row.other));
  RunningSwitch process(config, dir_ / "log");
  EXPECT_EQ(process.end(0), 1);
  std::string error = row.error;
  for (size_t at; (at = error.find("DIR")) != std::string::npos;) {
    error.replace(at, 3, dir_.path());
  }
  const std::string log = process.log();
  EXPECT_THAT(log, StartsWith("ofswitch: " + error));
  EXPECT_EQ(log.find('\n'), log.size() - 1) << log;
}

INSTANTIATE_TEST_SUITE_P(Rows, RunRefusal, testing::ValuesIn(kRefusals),
                         [](const auto& row) { return row.param.name; });

TEST_F(RunCommand, ChecksWithoutStarting) {
  const std::string flows = write("flows.txt", "in_port=1,actions=output:2\n");
  const std::string config = write("switch.yaml", kConfig);
  {
    RunningSwitch process(config, dir_ / "log", "--check");
    EXPECT_EQ(process.end(0), 0);
    EXPECT_EQ(process.log(),
              config + ": 2 ports, 2 workers, 1 flow, 0 refused\n");
  }
  write("flows.txt", "in_port=1,actions=fly\n");
  RunningSwitch process(config, dir_ / "log", "--check");
  EXPECT_EQ(process.end(0), 1);
  EXPECT_THAT(process.log(), HasSubstr(flows + ":1: "));
  EXPECT_THAT(process.log(), HasSubstr("0 flows, 1 refused\n"));
}

TEST_F(RunCommand, ChecksAllFilesAndTheControlAddress) {
  const std::string a = write("a.txt", "in_port=1,actions=output:2\nx\n");
  const std::string b =
      write("b.txt", "tcp,actions=drop\nudp,actions=drop\ny\n");
  std::string text = kConfig;
  text.replace(text.find("flows.txt"), 9, "[a.txt, b.txt]");
  text.replace(text.find("workers: 2"), 10, "workers: [0]");
  const std::string config = write("switch.yaml", text);
  {
    RunningSwitch process(config, dir_ / "log", "--check");
    EXPECT_EQ(process.end(0), 1);
    EXPECT_EQ(
        process.log(),
        a + ":2: no actions; write actions=drop for a flow that drops\n" + b +
            ":3: no actions; write actions=drop for a flow that drops\n" +
            config + ": 2 ports, 1 worker on core 0, 3 flows, 2 refused\n");
  }
  text.replace(text.find("workers: [0]"), 12, "workers: [0, 1]");
  write("switch.yaml", text);
  {
    RunningSwitch process(config, dir_ / "log", "--check");
    EXPECT_EQ(process.end(0), 1);
    EXPECT_THAT(process.log(), HasSubstr("2 workers on core 0, 1, 3 flows"));
  }
  text.replace(text.find("socket: control.sock"), 20, "address: 0.0.0.0:9470");
  write("switch.yaml", text);
  RunningSwitch process(config, dir_ / "log", "--check");
  EXPECT_EQ(process.end(0), 1);
  EXPECT_THAT(process.log(),
              HasSubstr("0.0.0.0:9470 can be reached from elsewhere and needs "
                        "control.tls: certificate, key and client_ca\n"));
}

TEST_F(RunCommand, TellsWhatToDoWhenItsBuffersDoNotFit) {
  write("flows.txt", "");
  const std::string config = write(
      "switch.yaml", configWith("{mb: 256}", "{mb: 128, buffers: 10000000}"));
  RunningSwitch process(config, dir_ / "log");
  EXPECT_EQ(process.end(0), 1);
  EXPECT_THAT(process.log(),
              testing::MatchesRegex(
                  "ofswitch: cannot make a pool of 10000000 packets .* in "
                  "DPDK's 128 MB: Cannot allocate memory; raise memory.mb or "
                  "lower memory.buffers\n"));
}

TEST_F(RunCommand, NotesAMetricsPortThatIsTaken) {
  const auto other = openflow_test::Listener::onLoopback();
  const std::string taken = other.address();
  write("flows.txt", "");
  const std::string config =
      write("switch.yaml", configWith("metrics: false", "metrics: " + taken));
  RunningSwitch process(config, dir_ / "log", "--check");
  EXPECT_EQ(process.end(0), 0);
  EXPECT_EQ(process.log(),
            "note: metrics: " + taken +
                ": Address already in use; if it is not this switch that runs "
                "and has it, give another address, or \"metrics: false\"\n" +
                config + ": 2 ports, 2 workers, 0 flows, 0 refused\n");
}

TEST_F(RunCommand, StopsSoonWhileItLoadsItsFlows) {
  constexpr int kTables = 32;
  constexpr int kFlows = 1500;
  std::string flows;
  for (int table = 0; table < kTables; table++) {
    for (int i = 0; i < kFlows; i++) {
      flows += "table=" + std::to_string(table) + ",tcp,nw_dst=10." +
               std::to_string(i / 256) + "." + std::to_string(i % 256) +
               ".0/24,tp_dst=" + std::to_string(i % 1000 + 1) +
               ",actions=dec_ttl,output:2\n";
    }
  }
  write("flows.txt", flows);
  const std::string config = write("switch.yaml", kConfig);
  RunningSwitch process(config, dir_ / "log");
  const std::string door = dir_ / "control.sock";
  while (!std::filesystem::exists(door)) std::this_thread::sleep_for(5ms);
  std::this_thread::sleep_for(300ms);
  const auto start = Clock::now();
  EXPECT_EQ(process.end(SIGTERM), 0);
  EXPECT_LT(Clock::now() - start, timeLimit(2500ms));
  EXPECT_THAT(process.log(),
              HasSubstr("stopped while flows were being loaded\n"));
  EXPECT_THAT(process.log(), Not(HasSubstr("running: ")));
  EXPECT_FALSE(std::filesystem::exists(door));
}

// The signal is there before the process is: it waits until it is asked for. A
// process that stands still for long is ended by its clock, which says the same
// in other words.
TEST_F(RunCommand, EndsByItselfWhenItIsStoppedWhileItLoads) {
  write("flows.txt", "actions=output:2\n");
  const std::string config = write("switch.yaml", kConfig);
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  std::string log;
  for (int round = 0; round < 10 && !log.starts_with("stopped"); round++) {
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
    RunningSwitch process(config, dir_ / "log");
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(process.end(SIGTERM), 0);
    log = process.log();
    EXPECT_FALSE(std::filesystem::exists(dir_ / "control.sock"));
  }
  EXPECT_THAT(log, AnyOf("stopped while flows were being loaded\n",
                         "ofswitch: stopped while flows were being loaded\n"));
}

// Nobody is at the other end.
TEST_F(RunCommand, TellsThatALinkIsDown) {
  write("flows.txt", "");
  const std::string device =
      "net_memif0,role=server,socket-abstract=no,socket=" +
      (dir_ / "memif.sock").string();
  const std::string config =
      write("switch.yaml",
            configWith("device: net_null1", "device: \"" + device + '"'));
  RunningSwitch process(config, dir_ / "log");
  ASSERT_TRUE(process.waitFor("running: 2 ports, 2 workers, 0 flows\n"))
      << process.log();
  EXPECT_THAT(process.log(),
              ContainsRegex("port 1 [^\n]* link up\nport 2 port2: " + device +
                            " \\(net_memif\\), [^\n]* link down\n"));
  EXPECT_EQ(process.end(SIGTERM), 0);
}

TEST_F(RunCommand, TellsWhatMayBeWrongWithItsFlows) {
  const std::string flows = write("flows.txt", "in_port=1,actions=output:9\n");
  const std::string config = write("switch.yaml", kConfig);
  RunningSwitch process(config, dir_ / "log");
  ASSERT_TRUE(process.waitFor("running: 2 ports, 2 workers, 1 flow\n"))
      << process.log();
  EXPECT_THAT(process.log(),
              HasSubstr("note: " + flows +
                        ":1: output:9: port 9 is not connected, what is sent "
                        "there goes nowhere\n"));
  EXPECT_EQ(process.end(SIGTERM), 0);
}

// A controller capture into a pipe that nobody empties keeps the switch from
// being taken apart.
TEST_F(RunCommand, EndsInTimeThoughItsPortsDoNotClose) {
  write("flows.txt", "in_port=1,actions=controller\n");
  const std::string config = write(
      "switch.yaml", std::string(kConfig) + "controller: {capture: pipe}\n");
  ASSERT_EQ(mkfifo((dir_ / "pipe").c_str(), 0600), 0);
  const int reader =
      open((dir_ / "pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  RunningSwitch process(config, dir_ / "log");
  ASSERT_TRUE(process.waitFor("running: 2 ports, 2 workers, 1 flow\n"))
      << process.log();
  int queued = 0;
  const auto deadline = Clock::now() + 20s;
  while (queued < fcntl(reader, F_GETPIPE_SZ) / 2) {
    ASSERT_LT(Clock::now(), deadline);
    ASSERT_EQ(ioctl(reader, FIONREAD, &queued), 0);
    std::this_thread::sleep_for(5ms);
  }
  std::this_thread::sleep_for(100ms);  // for the rest of it
  const auto start = Clock::now();
  EXPECT_EQ(process.end(SIGTERM), 0);
  EXPECT_LT(Clock::now() - start, timeLimit(2500ms));
  EXPECT_THAT(process.log(),
              HasSubstr("ofswitch: stopped before its ports were closed\n"));
  EXPECT_FALSE(std::filesystem::exists(dir_ / "control.sock"));
  close(reader);
}

TEST_F(RunCommand, SaysWhenItsCaptureIsNotWhole) {
  write("flows.txt", "in_port=1,actions=controller\n");
  const std::string config = write(
      "switch.yaml", std::string(kConfig) + "controller: {capture: pipe}\n");
  const std::string pipe = dir_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  RunningSwitch process(config, dir_ / "log");
  ASSERT_TRUE(process.waitFor("running: 2 ports, 2 workers, 1 flow\n"))
      << process.log();
  close(reader);
  EXPECT_EQ(process.end(SIGTERM), 1);
  EXPECT_THAT(process.log(), HasSubstr("\nstopped: "));
  EXPECT_THAT(process.log(), HasSubstr("ofswitch: controller.capture: " + pipe +
                                       ": Broken pipe\n"));
}

TEST_F(RunCommand, RefusesBadFlowsBeforeAnythingStarts) {
  const std::string flows =
      write("flows.txt", "in_port=1,actions=output:2\nnonsense\n");
  const std::string config = write("switch.yaml", kConfig);
  RunningSwitch process(config, dir_ / "log");
  EXPECT_EQ(process.end(0), 1);
  EXPECT_EQ(process.log(), "ofswitch: " + flows +
                               ":2: no actions; write actions=drop for a flow "
                               "that drops\n");
}

}  // namespace
