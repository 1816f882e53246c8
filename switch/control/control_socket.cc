// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/control_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>

#include "switch/live/live_switch.h"

namespace ofswitch {
namespace {

constexpr int kBacklog = 1024;

// A switch that starts keeps the folder for some milliseconds. Who has it
// longer than this is no switch.
constexpr auto kLockPatience = std::chrono::seconds(2);

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw StartError(fmt::format("control socket {}: {}", path, reason));
}

[[noreturn]] void failErrno(const std::string& path, const char* what) {
  fail(path, fmt::format("{}: {}", what, std::strerror(errno)));
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    fail(path, fmt::format("the path has {} characters, at most {} are "
                           "possible",
                           path.size(), sizeof(address.sun_path) - 1));
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

int openSocket(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) failErrno(path, "cannot be made");
  return fd;
}

// Removes the socket of a process that is gone.
void makeRoom(const std::string& path, const sockaddr_un& address) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return;
  if (!S_ISSOCK(found.st_mode)) {
    fail(path,
         "there is a file that is no socket; remove it or choose "
         "another path");
  }
  const Fd probe(openSocket(path));
  const int result =
      connect(probe.get(), reinterpret_cast<const sockaddr*>(&address),
              sizeof(address));
  // EAGAIN: its queue of connections is full.
  if (result == 0 || errno == EAGAIN) {
    fail(path, "a switch is running there; stop it or choose another path");
  }
  if (errno != ECONNREFUSED) failErrno(path, "cannot be replaced");
  if (unlink(path.c_str()) != 0) failErrno(path, "cannot be replaced");
}

// The process that has locked what is open as `fd`, as far as the kernel tells.
std::string lockHolder(int fd) {
  struct stat found {};
  if (fstat(fd, &found) != 0) return "another process";
  const std::string wanted =
      fmt::format("{:02x}:{:02x}:{}", major(found.st_dev), minor(found.st_dev),
                  found.st_ino);
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    // "7: FLOCK  ADVISORY  WRITE 4711 fe:01:1234 0 EOF"
    std::istringstream words(line);
    std::string number, kind, advisory, mode, process, file;
    words >> number >> kind >> advisory >> mode >> process >> file;
    if (kind == "FLOCK" && file == wanted) return "process " + process;
  }
  return "another process";
}

// So that of two switches that start at once, one sees the other.
Fd lockFolder(const std::string& path, const std::string& folder) {
  Fd lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (lock.get() < 0) failErrno(path, "the folder cannot be used");
  const auto end = std::chrono::steady_clock::now() + kLockPatience;
  while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) failErrno(path, "the folder cannot be used");
    if (std::chrono::steady_clock::now() >= end) {
      fail(path, fmt::format("{} keeps {} locked; end it or choose a path in "
                             "another folder",
                             lockHolder(lock.get()), folder));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return lock;
}

}  // namespace

ListeningSocket::ListeningSocket(ListeningSocket&& other) noexcept {
  *this = std::move(other);
}

ListeningSocket& ListeningSocket::operator=(ListeningSocket&& other) noexcept {
  std::swap(fd_, other.fd_);
  std::swap(path_, other.path_);
  std::swap(device_, other.device_);
  std::swap(inode_, other.inode_);
  return *this;
}

ListeningSocket::~ListeningSocket() {
  if (fd_ < 0) return;
  struct stat found {};
  if (isUnix() && lstat(path_.c_str(), &found) == 0 &&
      found.st_dev == device_ && found.st_ino == inode_) {
    unlink(path_.c_str());
  }
  close(fd_);
}

ListeningSocket ListeningSocket::atPath(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  std::error_code error;
  const std::string folder =
      std::filesystem::absolute(path, error).parent_path().string();
  if (error) {
    fail(path,
         "the current folder is gone; start in another one, or give an "
         "absolute path");
  }
  std::filesystem::create_directories(folder, error);
  if (error) {
    fail(path, fmt::format("the folder cannot be made: {}", error.message()));
  }
  const Fd lock = lockFolder(path, folder);
  makeRoom(path, address);

  Fd fd(openSocket(path));
  // The name that bind makes has this mode from the start.
  if (fchmod(fd.get(), 0600) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&address),
           sizeof(address)) != 0) {
    failErrno(path, "cannot be made");
  }
  ListeningSocket socket;
  socket.fd_ = fd.release();
  socket.path_ = path;
  struct stat made {};
  if (lstat(path.c_str(), &made) != 0 || listen(socket.fd_, kBacklog) != 0) {
    failErrno(path, "cannot be made");
  }
  socket.device_ = made.st_dev;
  socket.inode_ = made.st_ino;
  return socket;
}

ListeningSocket ListeningSocket::atAddress(const std::string& text,
                                           const TcpAddress& address,
                                           const std::string& key) {
  ListeningSocket made;
  made.fd_ =
      socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  if (made.fd_ < 0 ||
      setsockopt(made.fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      bind(made.fd_, address.data(), address.size()) != 0 ||
      listen(made.fd_, kBacklog) != 0) {
    throw StartError(fmt::format("{}: {}: cannot listen there: {}", key, text,
                                 std::strerror(errno)));
  }
  return made;
}

uint16_t ListeningSocket::port() const {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
  // Both families have it in the same place.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

}  // namespace ofswitch
