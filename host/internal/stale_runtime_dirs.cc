// SPDX-License-Identifier: BSD-3-Clause
#include "internal/stale_runtime_dirs.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>
#include <vector>

namespace bess::internal {
namespace {

namespace fs = std::filesystem;

// 0 for a name that is not the prefix and a number.
pid_t ProcessOf(const std::string& name, const std::string& prefix) {
  if (!name.starts_with(prefix)) {
    return 0;
  }
  pid_t pid = 0;
  const char* end = name.data() + name.size();
  const auto [stop, error] =
      std::from_chars(name.data() + prefix.size(), end, pid);
  return error == std::errc() && stop == end && pid > 0 ? pid : 0;
}

// The socket tells what the number cannot: the process may live in another
// process namespace, where it has another number. Does not wait for one that
// takes no connections at the moment.
bool NobodyListens(const fs::path& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof(address.sun_path)) {
    return false;
  }
  memcpy(address.sun_path, text.data(), text.size());
  const int fd =
      socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const bool refused = fd >= 0 &&
                       connect(fd, reinterpret_cast<const sockaddr*>(&address),
                               sizeof(address)) != 0 &&
                       errno == ECONNREFUSED;
  if (fd >= 0) {
    close(fd);
  }
  return refused;
}

void RemoveIfStale(const fs::path& dir) {
  std::error_code error;
  std::vector<fs::path> sockets;
  fs::directory_iterator entry(dir, error);
  for (; entry != fs::directory_iterator(); entry.increment(error)) {
    if (!entry->is_socket(error) || !NobodyListens(entry->path())) {
      return;
    }
    sockets.push_back(entry->path());
  }
  if (error || sockets.empty()) {
    return;  // somebody may be about to make one
  }
  for (const fs::path& socket : sockets) {
    fs::remove(socket, error);
  }
  fs::remove(dir, error);
}

}  // namespace

void RemoveStaleRuntimeDirs(const fs::path& parent, const std::string& prefix) {
  std::error_code error;
  std::vector<fs::path> stale;
  fs::directory_iterator entry(parent, error);
  for (; entry != fs::directory_iterator(); entry.increment(error)) {
    const pid_t pid = ProcessOf(entry->path().filename().string(), prefix);
    std::error_code ignored;
    if (pid != 0 && kill(pid, 0) != 0 && errno == ESRCH &&
        entry->symlink_status(ignored).type() == fs::file_type::directory) {
      stale.push_back(entry->path());
    }
  }
  for (const fs::path& dir : stale) {
    RemoveIfStale(dir);
  }
}

}  // namespace bess::internal
