// SPDX-License-Identifier: BSD-3-Clause
//
// Control sockets that the system refuses, call by call.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "switch/control/control_socket.h"
#include "switch/control/tcp_address.h"
#include "tests/captures/capture_files.h"
#include "tests/control_door/sockets.h"
#include "tests/support/few_descriptors.h"
#include "tests/support/next_definition.h"

namespace {

// What the system refuses, and why.
struct Refused {
  int flock = 0;
  int bind = 0;
  int listen = 0;
  int setsockopt = 0;
  int fchmod = 0;
  int unlink = 0;
  int fstat = 0;
  int lstat = 0;
};
Refused refused;
bool showsOtherNumbers = false;  // of an open file
int lockings = 0;                // tries

// Answers in place of a function that is refused.
bool isRefused(int error) {
  if (error == 0) return false;
  errno = error;
  return true;
}

using openflow_test::next;

}  // namespace

// The program's own versions of the system's functions.
extern "C" {

int flock(int fd, int operation) noexcept {
  static auto* const real = next<decltype(flock)>("flock");
  lockings++;
  return isRefused(refused.flock) ? -1 : real(fd, operation);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  static auto* const real = next<decltype(bind)>("bind");
  return isRefused(refused.bind) ? -1 : real(fd, address, size);
}

int listen(int fd, int backlog) noexcept {
  static auto* const real = next<decltype(listen)>("listen");
  return isRefused(refused.listen) ? -1 : real(fd, backlog);
}

int setsockopt(int fd, int level, int name, const void* value,
               socklen_t size) noexcept {
  static auto* const real = next<decltype(setsockopt)>("setsockopt");
  return isRefused(refused.setsockopt) ? -1
                                       : real(fd, level, name, value, size);
}

int fchmod(int fd, mode_t mode) noexcept {
  static auto* const real = next<decltype(fchmod)>("fchmod");
  return isRefused(refused.fchmod) ? -1 : real(fd, mode);
}

int unlink(const char* path) noexcept {
  static auto* const real = next<decltype(unlink)>("unlink");
  return isRefused(refused.unlink) ? -1 : real(path);
}

int fstat(int fd, struct stat* found) noexcept {
  static auto* const real = next<int(int, struct stat*)>("fstat");
  if (isRefused(refused.fstat)) return -1;
  const int result = real(fd, found);
  if (showsOtherNumbers) found->st_ino++;
  return result;
}

int lstat(const char* path, struct stat* found) noexcept {
  static auto* const real = next<int(const char*, struct stat*)>("lstat");
  return isRefused(refused.lstat) ? -1 : real(path, found);
}
}

namespace ofswitch {
namespace {

using openflow_test::FewDescriptors;
using openflow_test::ScratchDir;

// While it lives, the system refuses a call, or tells other numbers.
class Refusal {
 public:
  Refusal(int Refused::*call, int error) { refused.*call = error; }
  ~Refusal() { refused = {}; }
  Refusal(const Refusal&) = delete;
  Refusal& operator=(const Refusal&) = delete;
};

class OtherNumbers {
 public:
  OtherNumbers() { showsOtherNumbers = true; }
  ~OtherNumbers() { showsOtherNumbers = false; }
  OtherNumbers(const OtherNumbers&) = delete;
  OtherNumbers& operator=(const OtherNumbers&) = delete;
};

// One for the folder, one to look for another switch, one to listen.
TEST(ControlSocket, TellsWhatItLacksDescriptorsFor) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  const auto errorWith = [&](rlim_t count) {
    const FewDescriptors few(count);
    return errorOf([&] { ListeningSocket::atPath(path); });
  };
  const std::string start = "control socket " + path + ": ";
  EXPECT_EQ(errorWith(0),
            start + "the folder cannot be used: Too many open files");
  EXPECT_EQ(errorWith(1), start + "cannot be made: Too many open files");
  leaveSocket(path);
  EXPECT_EQ(errorWith(1), start + "cannot be made: Too many open files");
  EXPECT_TRUE(std::filesystem::exists(path)) << "nothing was done";
  EXPECT_EQ(errorWith(2), "");
}

// It would not help to try again.
TEST(ControlSocket, TellsWhyAFolderCannotBeLocked) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  const Refusal refusal(&Refused::flock, ENOLCK);
  lockings = 0;
  EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(path); }),
            "control socket " + path +
                ": the folder cannot be used: No locks available");
  EXPECT_EQ(lockings, 1);
}

TEST(ControlSocket, TellsWhyItCannotBeMade) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  const auto errorWithout = [&](int Refused::*call, int error) {
    const Refusal refusal(call, error);
    return errorOf([&] { ListeningSocket::atPath(path); });
  };
  const std::string start = "control socket " + path + ": cannot be made: ";
  for (int Refused::*call : {&Refused::fchmod, &Refused::bind}) {
    EXPECT_EQ(errorWithout(call, EPERM), start + "Operation not permitted");
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  for (int Refused::*call : {&Refused::lstat, &Refused::listen}) {
    EXPECT_EQ(errorWithout(call, EIO), start + "Input/output error");
    unlink(path.c_str());
  }
  EXPECT_GE(ListeningSocket::atPath(path).fd(), 0) << "nothing is in the way";
}

TEST(ControlSocket, TellsWhyOneThatIsGoneCannotBeReplaced) {
  ScratchDir dir;
  const std::string path = dir / "control.sock";
  leaveSocket(path);
  const Refusal refusal(&Refused::unlink, EACCES);
  EXPECT_EQ(
      errorOf([&] { ListeningSocket::atPath(path); }),
      "control socket " + path + ": cannot be replaced: Permission denied");
  EXPECT_TRUE(std::filesystem::exists(path));
}

// Without the numbers by which the kernel lists locks, or with other ones.
TEST(ControlSocket, TellsThatSomebodyKeepsTheFolderLocked) {
  ScratchDir dir;
  const int lock = lockedFolder(dir);
  const std::string path = dir / "control.sock";
  const std::string folder = std::filesystem::path(path).parent_path();
  const std::string expected =
      "control socket " + path + ": another process keeps " + folder +
      " locked; end it or choose a path in another folder";
  {
    const Refusal refusal(&Refused::fstat, EIO);
    EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(path); }), expected);
  }
  {
    const OtherNumbers others;
    EXPECT_EQ(errorOf([&] { ListeningSocket::atPath(path); }), expected);
  }
  close(lock);
}

TEST(ControlAddress, IsRefusedWhenTheSystemRefusesIt) {
  const std::string any = "127.0.0.1:0";
  const TcpAddress address(any, "key");
  const auto error = [&] {
    return errorOf([&] { ListeningSocket::atAddress(any, address, "key"); });
  };
  const std::string start = "key: 127.0.0.1:0: cannot listen there: ";
  {
    const FewDescriptors none(0);
    EXPECT_EQ(error(), start + "Too many open files");
  }
  for (int Refused::*call :
       {&Refused::setsockopt, &Refused::bind, &Refused::listen}) {
    const Refusal refusal(call, EACCES);
    EXPECT_EQ(error(), start + "Permission denied");
  }
  EXPECT_EQ(error(), "");
}

}  // namespace
}  // namespace ofswitch
