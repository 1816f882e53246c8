// SPDX-License-Identifier: BSD-3-Clause
#include "utils/available_memory.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

namespace Dpdk {
namespace {

namespace fs = std::filesystem;

// The number a file starts with, or SIZE_MAX: "max", no file.
size_t numberIn(const fs::path& file) {
  std::ifstream in(file);
  size_t number = 0;
  return in >> number ? number : SIZE_MAX;
}

size_t machineHas(const fs::path& root) {
  std::ifstream in(root / "proc/meminfo");
  std::string name;
  size_t kilobytes = 0;
  for (std::string line; std::getline(in, line);) {
    if (std::istringstream(line) >> name >> kilobytes &&
        name == "MemAvailable:") {
      return kilobytes * 1024;
    }
  }
  return SIZE_MAX;
}

// What is left of `limit` in a group. Its use includes the files it has read,
// which make room when it grows.
size_t roomIn(const fs::path& group, const char* limit, const char* use) {
  const size_t most = numberIn(group / limit);
  const size_t used = numberIn(group / use);
  if (most == SIZE_MAX || used == SIZE_MAX) return SIZE_MAX;
  size_t cached = 0;
  std::ifstream in(group / "memory.stat");
  std::string name;
  for (size_t bytes = 0; in >> name >> bytes;) {
    if (name == "inactive_file" || name == "total_inactive_file") {
      cached = bytes;
    }
  }
  const size_t fixed = used - std::min(used, cached);
  return most - std::min(most, fixed);
}

// A limit holds for all groups below, so the way up counts. A container may
// see its own group as the topmost one, under whatever name it was given.
size_t groupHas(const fs::path& mount, const fs::path& group, const char* limit,
                const char* use) {
  size_t room = roomIn(mount, limit, use);
  fs::path below = mount;
  for (const fs::path& part : group.relative_path()) {
    below /= part;
    room = std::min(room, roomIn(below, limit, use));
  }
  return room;
}

}  // namespace

size_t availableMemory(const fs::path& root) {
  size_t room = machineHas(root);
  const fs::path mount = root / "sys/fs/cgroup";
  std::ifstream in(root / "proc/self/cgroup");
  for (std::string line; std::getline(in, line);) {
    // "0::/a/b" of version 2, "9:memory:/a/b" or "3:cpu,memory:/a" of version 1
    const size_t first = line.find(':');
    const size_t second = line.find(':', first + 1);
    if (second == std::string::npos) continue;
    const std::string controllers =
        "," + line.substr(first + 1, second - first - 1) + ",";
    const fs::path group = line.substr(second + 1);
    if (controllers == ",,") {
      room = std::min(room,
                      groupHas(mount, group, "memory.max", "memory.current"));
    } else if (controllers.find(",memory,") != std::string::npos) {
      room = std::min(room,
                      groupHas(mount / "memory", group, "memory.limit_in_bytes",
                               "memory.usage_in_bytes"));
    }
  }
  return room;
}

}  // namespace Dpdk
