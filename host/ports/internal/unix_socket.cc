// SPDX-License-Identifier: BSD-3-Clause
#include "ports/internal/unix_socket.h"

#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>

namespace bess::internal {
namespace {

enum class Listener { kNone, kThisProcess, kOtherProcess };

// The addresses at which devices of this process listen, as often as they do.
std::mutex mutex;
std::multiset<std::string> listening;

bool IsListening(const std::string& name) {
  const std::lock_guard lock(mutex);
  return listening.contains(name);
}

bool IsOurs(const std::string& inode) {
  const std::string wanted = "socket:[" + inode + "]";
  std::error_code error;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/self/fd", error)) {
    if (std::filesystem::read_symlink(entry.path(), error) == wanted) {
      return true;
    }
  }
  return false;
}

Listener FindListener(const std::string& address) {
  std::ifstream table("/proc/net/unix");
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string slot, references, protocol, flags, type, state, inode, path;
    if (!(words >> slot >> references >> protocol >> flags >> type >> state >>
          inode >> path)) {
      continue;
    }
    constexpr char kAccepts[] = "00010000";
    // Abstract names are printed with an @ for their first byte, and with one
    // more for each byte that fills them up.
    if (path.starts_with('@')) {
      path.erase(0, 1);
      path.erase(path.find_last_not_of('@') + 1);
    }
    if (flags == kAccepts && path == address) {
      return IsOurs(inode) ? Listener::kThisProcess : Listener::kOtherProcess;
    }
  }
  return Listener::kNone;
}

}  // namespace

std::string CheckListen(const UnixAddress& address) {
  if (address.name.empty() || IsListening(address.name)) {
    return "";
  }
  switch (FindListener(address.name)) {
    case Listener::kOtherProcess:
      return "another process listens at socket '" + address.name +
             "': name another with socket=...";
    case Listener::kThisProcess:
      // The driver forgets to close it. A file can be replaced all the same.
      return address.abstract
                 ? "DPDK keeps the abstract socket '" + address.name +
                       "' of a device that was closed: name another with "
                       "socket=..., or use a file with socket-abstract=no"
                 : "";
    case Listener::kNone:
      break;
  }
  return "";
}

ListeningSocket::ListeningSocket(const UnixAddress& address)
    : name_(address.name) {
  if (name_.empty()) {
    return;
  }
  std::error_code error;
  if (!address.abstract && std::filesystem::is_socket(name_, error) &&
      FindListener(name_) == Listener::kNone) {
    std::filesystem::remove(name_, error);
  }
  const std::lock_guard lock(mutex);
  listening.insert(name_);
}

ListeningSocket::~ListeningSocket() {
  const std::lock_guard lock(mutex);
  if (const auto found = listening.find(name_); found != listening.end()) {
    listening.erase(found);
  }
}

}  // namespace bess::internal
