// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/control_socket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include "switch/control/control_server.h"
#include "tests/captures/capture_files.h"

namespace ofswitch {
namespace {

using openflow_test::ScratchDir;

std::string errorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const StartError& error) {
    return error.what();
  }
  return "";
}

// What a killed process leaves behind.
void leaveSocket(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
            0);
  close(fd);
}

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

// Closing it unlocks.
int lockedFolder(const ScratchDir& dir) {
  const int fd = open((dir / "").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_EQ(flock(fd, LOCK_EX), 0);
  return fd;
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

TEST(ControlSocket, TellsWhoKeepsTheFolderLocked) {
  ScratchDir dir;
  const int lock = lockedFolder(dir);
  const std::string folder = std::filesystem::path(dir / "x").parent_path();
  // Some file systems show other numbers than the kernel's list of locks.
  EXPECT_THAT(
      errorOf([&] { ListeningSocket::atPath(dir / "control.sock"); }),
      testing::MatchesRegex(
          "control socket .*/control.sock: (process " +
          std::to_string(getpid()) + "|another process) keeps " + folder +
          " locked; end it or choose a path in another folder"));
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
  for (const char* address : {"0.0.0.0:9470", "10.0.0.1:9470", "[::]:9470",
                              "[::ffff:10.0.0.1]:9470", "[fe80::1]:9470"}) {
    EXPECT_EQ(errorOf([&] { checkControlAddress(configWith(address)); }),
              "control.address: " + std::string(address) +
                  " can be reached from elsewhere and needs control.tls: "
                  "certificate, key and client_ca");
  }
}

TEST(ControlAddress, IsAnAddressAndAPort) {
  for (const char* address :
       {"9470", ":9470", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536",
        "127.0.0.1:-1", "127.0.0.1:94x", "::1:9470", "[::1]", "[]:9470",
        "example.org:9470"}) {
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
