// SPDX-License-Identifier: BSD-3-Clause
//
// Directories of killed processes, and all that only looks like one.
#include "internal/stale_runtime_dirs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "tests/captures/capture_files.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

// The kernel gives no process such a number.
constexpr char kNobody[] = "99999998";

class StaleRuntimeDirsTest : public testing::Test {
 protected:
  fs::path Directory(const std::string& name) const {
    fs::create_directory(parent_ / name);
    return parent_ / name;
  }

  // Leaves a socket, with nobody at it. Answers whether it could.
  static bool LeaveSocket(const fs::path& path) {
    const int fd = Bind(path);
    close(fd);
    return fd >= 0;
  }

  static int Bind(const fs::path& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    EXPECT_LE(text.size(), sizeof(address.sun_path));
    memcpy(address.sun_path, text.data(),
           std::min(text.size(), sizeof(address.sun_path)));
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
              0);
    return fd;
  }

  void Clean() const {
    bess::internal::RemoveStaleRuntimeDirs(parent_.path(), "switch");
  }

  std::set<std::string> Left() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(parent_.path())) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  static ptrdiff_t OpenFiles() {
    return std::distance(fs::directory_iterator("/proc/self/fd"),
                         fs::directory_iterator());
  }

  openflow_test::ScratchDir parent_;
};

TEST_F(StaleRuntimeDirsTest, GoWithTheirSockets) {
  const fs::path dir = Directory(std::string("switch") + kNobody);
  ASSERT_TRUE(LeaveSocket(dir / "telemetry"));
  ASSERT_TRUE(LeaveSocket(dir / "telemetry.v2"));
  ASSERT_TRUE(LeaveSocket(Directory("switch99999997") / "telemetry"));
  Clean();
  EXPECT_THAT(Left(), IsEmpty());
}

TEST_F(StaleRuntimeDirsTest, AreLeftWhenTheProcessLives) {
  const std::string name = "switch" + std::to_string(getpid());
  ASSERT_TRUE(LeaveSocket(Directory(name) / "telemetry"));
  Clean();
  EXPECT_THAT(Left(), ElementsAre(name));
}

// Number 1 is root's, and takes no signals from others.
TEST_F(StaleRuntimeDirsTest, AreLeftWhenAnothersProcessLives) {
  for (const char* name : {"switch1", "switch99999998"}) {
    ASSERT_TRUE(LeaveSocket(Directory(name) / "telemetry"));
    fs::permissions(parent_ / name, fs::perms::all);
    fs::permissions(parent_ / name / "telemetry", fs::perms::all);
  }
  fs::permissions(parent_.path(), fs::perms::all);
  const pid_t child = fork();
  if (child == 0) {
    const bool other = geteuid() != 0 || setresuid(65534, 65534, 65534) == 0;
    Clean();
    _exit(other ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_THAT(Left(), ElementsAre("switch1"));
}

TEST_F(StaleRuntimeDirsTest, AreLeftWhenSomebodyListens) {
  const std::string name = std::string("switch") + kNobody;
  const fs::path dir = Directory(name);
  ASSERT_TRUE(LeaveSocket(dir / "a"));
  const int fd = Bind(dir / "b");
  ASSERT_EQ(listen(fd, 1), 0);
  Clean();
  EXPECT_TRUE(fs::exists(dir / "a"));
  EXPECT_TRUE(fs::exists(dir / "b"));
  close(fd);
  Clean();
  EXPECT_THAT(Left(), IsEmpty());
}

// One that has more to do than it can take is alive.
TEST_F(StaleRuntimeDirsTest, AreLeftWhenTheirOwnerIsBusy) {
  const std::string name = std::string("switch") + kNobody;
  const fs::path path = Directory(name) / "telemetry";
  const int listener = Bind(path);
  ASSERT_EQ(listen(listener, 0), 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.c_str(), path.string().size());
  std::vector<int> waiting;
  int result = 0;
  while (result == 0 && waiting.size() < 100) {
    waiting.push_back(
        socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    result = connect(waiting.back(), reinterpret_cast<sockaddr*>(&address),
                     sizeof(address));
  }
  ASSERT_EQ(result, -1) << "there is room for everybody";
  ASSERT_EQ(errno, EAGAIN);
  Clean();
  EXPECT_THAT(Left(), ElementsAre(name));
  EXPECT_TRUE(fs::exists(path));
  for (const int fd : waiting) {
    close(fd);
  }
  close(listener);
}

TEST_F(StaleRuntimeDirsTest, AreLeftWithAnythingElseInThem) {
  const fs::path dir = Directory(std::string("switch") + kNobody);
  ASSERT_TRUE(LeaveSocket(dir / "telemetry"));
  openflow_test::writeFile(dir / "notes", "");
  Directory("switch99999997");  // empty: its owner may be about to fill it
  Clean();
  EXPECT_THAT(Left(),
              ElementsAre("switch99999997", std::string("switch") + kNobody));
  EXPECT_TRUE(fs::exists(dir / "telemetry"));
}

TEST_F(StaleRuntimeDirsTest, AreKnownByTheirNames) {
  const std::set<std::string> names = {"other99999998", "switch",
                                       "switch-99999998", "switch0",
                                       "switch99999998x"};
  for (const std::string& name : names) {
    ASSERT_TRUE(LeaveSocket(Directory(name) / "telemetry"));
  }
  Clean();
  EXPECT_EQ(Left(), names);
}

// What they lead to is somebody else's.
TEST_F(StaleRuntimeDirsTest, AreLeftWhenTheyAreOnlyLinks) {
  const fs::path other = Directory("other");
  ASSERT_TRUE(LeaveSocket(other / "telemetry"));
  fs::create_symlink(other, parent_ / (std::string("switch") + kNobody));
  Clean();
  EXPECT_TRUE(fs::exists(other / "telemetry"));
  EXPECT_EQ(Left().size(), 2u);
}

// What does not fit an address cannot be asked.
TEST_F(StaleRuntimeDirsTest, AreLeftWhenASocketsPathIsTooLong) {
  const fs::path dir = Directory(std::string("switch") + kNobody);
  const size_t room = sizeof(sockaddr_un::sun_path) - dir.string().size() - 1;
  ASSERT_TRUE(LeaveSocket(dir / std::string(room, 's')));
  Clean();
  EXPECT_TRUE(fs::exists(dir));
  fs::rename(dir / std::string(room, 's'), dir / std::string(room - 1, 's'));
  Clean();
  EXPECT_THAT(Left(), IsEmpty());
}

TEST_F(StaleRuntimeDirsTest, LeaveNoFileOpen) {
  const fs::path dir = Directory(std::string("switch") + kNobody);
  ASSERT_TRUE(LeaveSocket(dir / "a"));
  const int fd = Bind(dir / "b");
  ASSERT_EQ(listen(fd, 1), 0);
  const ptrdiff_t before = OpenFiles();
  Clean();
  EXPECT_EQ(OpenFiles(), before);
  close(fd);
  Clean();
  EXPECT_EQ(OpenFiles(), before - 1);
  EXPECT_THAT(Left(), IsEmpty());
}

}  // namespace
