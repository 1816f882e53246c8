// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/control_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "switch/control/control_server.h"
#include "tests/captures/capture_files.h"
#include "tests/control_door/sockets.h"

namespace ofswitch {
namespace {

using openflow_test::ScratchDir;

TEST(ControlSocket, IsItsOwnersWhateverTheUmask) {
  ScratchDir dir;
  const std::string path = dir / "run" / "deep" / "control.sock";
  const mode_t before = umask(0);
  {
    const ListeningSocket socket = ListeningSocket::atPath(path);
    struct stat found {};
    ASSERT_EQ(lstat(path.c_str(), &found), 0);
    EXPECT_TRUE(S_ISSOCK(found.st_mode));
    EXPECT_EQ(found.st_mode & 0777, 0600);
  }
  umask(before);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ControlSocket, ReplacesOneThatNobodyListensTo) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  leaveSocket(path);
  const ListeningSocket socket = ListeningSocket::atPath(path);
  EXPECT_GE(socket.fd(), 0);
}

TEST(ControlSocket, RefusesOneThatIsInUse) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  const ListeningSocket first = ListeningSocket::atPath(path);
  EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(path); }),
            "control socket " + path +
                ": a switch is running there; stop it or choose another path");
  EXPECT_TRUE(std::filesystem::exists(path));
}

// A switch that is too busy to take connections is a switch.
TEST(ControlSocket, RefusesOneWhoseQueueIsFull) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  std::vector<int> fds = {bindSocket(path)};
  ASSERT_EQ(listen(fds[0], 0), 0);
  const sockaddr_un address = addressOf(path);
  int result = 0;
  while (result == 0 && fds.size() < 100) {
    fds.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    result = connect(fds.back(), reinterpret_cast<const sockaddr*>(&address),
                     sizeof(address));
  }
  ASSERT_EQ(result, -1);
  ASSERT_EQ(errno, EAGAIN);
  EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(path); }),
            "control socket " + path +
                ": a switch is running there; stop it or choose another path");
  EXPECT_TRUE(std::filesystem::exists(path));
  for (const int fd : fds) close(fd);
}

TEST(ControlSocket, RefusesASocketOfAnotherKind) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  const int fd = bindSocket(path, SOCK_DGRAM);
  EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(path); }),
            "control socket " + path +
                ": cannot be replaced: Protocol wrong type for socket");
  EXPECT_TRUE(std::filesystem::exists(path));
  close(fd);
}

TEST(ControlSocket, RefusesAFileThatIsNoSocket) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  openflow_test::writeFile(path, "precious");
  EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(path); }),
            "control socket " + path +
                ": there is a file that is no socket; remove it or choose "
                "another path");
  EXPECT_EQ(openflow_test::readFile(path), "precious");
}

TEST(ControlSocket, RefusesPathsThatCannotBe) {
  ScratchDir dir;
  const std::string path = dir / std::string(200, 'x');
  EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(path); }),
            "control socket " + path + ": the path has " +
                std::to_string(path.size()) +
                " characters, at most 107 are possible");
  openflow_test::writeFile(dir / "file", "");
  const std::string below = dir / "file" / "control.sock";
  EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(below); }),
            "control socket " + below +
                ": the folder cannot be made: Not a directory");
}

TEST(ControlSocket, WaitsForASwitchThatStartsAtTheSameTime) {
  ScratchDir dir;
  const int lock = lockedFolder(dir);
  std::thread other([lock] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    close(lock);
  });
  EXPECT_GE(ListeningSocket::atPath(dir / "control.sock").fd(), 0);
  other.join();
}

// Of the processors that this process may run on.
int lowestCpu() {
  cpu_set_t cpus;
  EXPECT_EQ(sched_getaffinity(0, sizeof(cpus), &cpus), 0);
  int lowest = 0;
  while (!CPU_ISSET(lowest, &cpus)) lowest++;
  return lowest;
}

// Another process with a lock of its own, which is nobody's concern. The kernel
// lists locks by the processors that they were taken on, the newest first: this
// one stands in front of ours.
class Bystander {
 public:
  explicit Bystander(const std::string& file) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(lowestCpu(), &first);
    child_ = fork();
    if (child_ == 0) {
      sched_setaffinity(0, sizeof(first), &first);
      const int fd = open(file.c_str(), O_RDWR | O_CREAT, 0600);
      // One of each kind.
      if (lockf(fd, F_LOCK, 0) == 0 && flock(fd, LOCK_EX) == 0 &&
          write(ready[1], "", 1) == 1) {
        pause();
      }
      _exit(1);
    }
    close(ready[1]);
    char locked = 1;
    EXPECT_EQ(read(ready[0], &locked, 1), 1);
    close(ready[0]);
  }
  ~Bystander() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }

 private:
  pid_t child_;
};

TEST(ControlSocket, TellsWhoKeepsTheFolderLocked) {
  ScratchDir dir;
  const int lock = lockedFolder(dir);
  const Bystander bystander(dir / "file");
  const std::string folder = std::filesystem::path(dir / "x").parent_path();
  // Some file systems show other numbers than the kernel's list of locks.
  struct stat found {};
  ASSERT_EQ(fstat(lock, &found), 0);
  const std::string process = std::to_string(getpid());
  const bool isListed =
      openflow_test::readFile("/proc/locks")
          .find(fmt::format(" {} {:02x}:{:02x}:{} ", process,
                            major(found.st_dev), minor(found.st_dev),
                            found.st_ino)) != std::string::npos;
  EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(dir / "control.sock"); }),
            "control socket " + (dir / "control.sock").string() + ": " +
                (isListed ? "process " + process : "another process") +
                " keeps " + folder +
                " locked; end it or choose a path in another folder");
  EXPECT_FALSE(std::filesystem::exists(dir / "control.sock"));
  close(lock);
}

TEST(ControlSocket, LeavesTheSocketOfASuccessor) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  {
    const ListeningSocket socket = ListeningSocket::atPath(path);
    std::filesystem::remove(path);
    leaveSocket(path);
  }
  EXPECT_TRUE(std::filesystem::exists(path));
}

SwitchConfig configWith(const std::string& address) {
  SwitchConfig config;
  config.controlAddress = address;
  return config;
}

TEST(ControlAddress, IsOfThisMachineWithoutTls) {
  for (const char* address :
       {"", "127.0.0.1:9470", "127.8.7.6:1", "localhost:9470", "[::1]:9470",
        "[::ffff:127.0.0.1]:9470"}) {
    EXPECT_EQ(errorOf([&] { checkControlAddress(configWith(address)); }), "")
        << address;
  }
  for (const char* address :
       {"0.0.0.0:9470", "10.0.0.1:9470", "[::]:9470", "[::ffff:10.0.0.1]:9470",
        "[fe80::1]:9470", "[2001:db8::7f00:1]:9470", "[::2]:9470",
        "[0:1::1]:9470", "[0:0:1::1]:9470", "[0:0:0:0:0:1:0:1]:9470",
        "[1::ffff:7f00:1]:9470", "[0:0:1::ffff:7f00:1]:9470"}) {
    EXPECT_EQ(errorOf([&] { checkControlAddress(configWith(address)); }),
              "control.address: " + std::string(address) +
                  " can be reached from elsewhere and needs control.tls: "
                  "certificate, key and client_ca");
  }
}

TEST(ControlAddress, IsAnAddressAndAPort) {
  for (const char* address :
       {"9470", ":9470", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536",
        "127.0.0.1:-1", "127.0.0.1:94x", "[::1x:9470", "x::1]:9470", "::1:9470",
        "[::1]", "[]:9470", "[::g]:9470", "example.org:9470"}) {
    EXPECT_EQ(errorOf([&] { checkControlAddress(configWith(address)); }),
              "control.address: \"" + std::string(address) +
                  "\" is no address and port, such as 127.0.0.1:9470 or "
                  "[::1]:9470");
  }
}

TEST(ControlAddress, IsRefusedWhenItIsTaken) {
  ScratchDir dir;
  const std::string key = "control.address";
  const ListeningSocket first = ListeningSocket::atAddress(
      "127.0.0.1:0", TcpAddress("127.0.0.1:0", key), key);
  ASSERT_GT(first.port(), 0);
  SwitchConfig config = configWith("127.0.0.1:" + std::to_string(first.port()));
  config.controlSocket = dir / "control.sock";
  EXPECT_EQ(errorOf([&] { ControlSockets{config}; }),
            "control.address: " + config.controlAddress +
                ": cannot listen there: Address already in use");
  EXPECT_FALSE(std::filesystem::exists(config.controlSocket));
}

}  // namespace
}  // namespace ofswitch
