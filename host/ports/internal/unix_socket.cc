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

// Another process counts for more: this one may still hold what a driver has
// forgotten.
Listener FindListener(const std::string& address) {
  Listener found = Listener::kNone;
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
      if (!IsOurs(inode)) {
        return Listener::kOtherProcess;
      }
      found = Listener::kThisProcess;
    }
  }
  return found;
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
    : address_(address) {
  if (!address_.name.empty()) {
    RemoveFile();
    const std::lock_guard lock(mutex);
    listening.insert(address_.name);
  }
}

ListeningSocket::~ListeningSocket() {
  if (!address_.name.empty()) {
    {
      const std::lock_guard lock(mutex);
      listening.erase(listening.find(address_.name));
    }
    RemoveFile();
  }
}

// Unless somebody needs it.
void ListeningSocket::RemoveFile() const {
  std::error_code error;
  if (!address_.abstract && !IsListening(address_.name) &&
      std::filesystem::is_socket(address_.name, error) &&
      FindListener(address_.name) != Listener::kOtherProcess) {
    std::filesystem::remove(address_.name, error);
  }
}

}  // namespace bess::internal
