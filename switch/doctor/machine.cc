// SPDX-License-Identifier: BSD-3-Clause
#include "switch/doctor/machine.h"

#include <fmt/format.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

namespace ofswitch {
namespace {

namespace fs = std::filesystem;

// One value of an interface's, nothing when it has none.
uint32_t ethtoolValue(int fd, const std::string& interface, uint32_t command) {
  ethtool_value value = {.cmd = command, .data = 0};
  ifreq request = {};
  interface.copy(request.ifr_name, IFNAMSIZ - 1);
  request.ifr_data = reinterpret_cast<char*>(&value);
  return ioctl(fd, SIOCETHTOOL, &request) == 0 ? value.data : 0;
}

std::vector<std::string> kernelOffloads(const std::string& interface) {
  struct Offload {
    const char* name;
    uint32_t command;
    uint32_t mask;
  };
  constexpr Offload kOffloads[] = {
      {"tx", ETHTOOL_GTXCSUM, ~0u},
      {"tso", ETHTOOL_GTSO, ~0u},
      {"gso", ETHTOOL_GGSO, ~0u},
      {"gro", ETHTOOL_GGRO, ~0u},
      {"lro", ETHTOOL_GFLAGS, ETH_FLAG_LRO},
  };
  std::vector<std::string> on;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  for (const Offload& one : kOffloads) {
    if ((ethtoolValue(fd, interface, one.command) & one.mask) != 0) {
      on.push_back(one.name);
    }
  }
  close(fd);
  return on;
}

}  // namespace

Machine::Machine() : Machine("/", kernelOffloads) {}

Machine::Machine(fs::path root, Offloads offloads)
    : root_(std::move(root)), offloads_(std::move(offloads)) {}

fs::path Machine::at(const std::string& path) const {
  return root_ / fs::path(path).relative_path();
}

bool Machine::exists(const std::string& path) const {
  std::error_code error;
  return fs::exists(fs::symlink_status(at(path), error));
}

std::string Machine::read(const std::string& path) const {
  std::ifstream in(at(path));
  std::ostringstream text;
  text << in.rdbuf();
  std::string content = text.str();
  if (content.ends_with('\n')) content.pop_back();
  return content;
}

std::vector<std::string> Machine::list(const std::string& path) const {
  std::error_code error;
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(at(path), error)) {
    names.push_back(entry.path().filename());
  }
  std::ranges::sort(names);
  return names;
}

fs::path Machine::link(const std::string& path) const {
  std::error_code error;
  return fs::read_symlink(at(path), error);
}

bool Machine::writable(const std::string& path) const {
  return access(at(path).c_str(), W_OK | X_OK) == 0;
}

bool Machine::usable(const std::string& path) const {
  return access(at(path).c_str(), R_OK | W_OK) == 0;
}

std::set<int> Machine::cpus(const std::string& path) const {
  return parseCpuList(read(path));
}

std::string Machine::field(const std::string& path,
                           const std::string& name) const {
  std::istringstream lines(read(path));
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(name)) continue;
    // "flags\t\t: fpu" has a space before its colon, other files have none.
    const size_t start = line.find_first_not_of(" \t:", name.size());
    const bool whole = line.find_first_of(" \t:", name.size()) == name.size();
    if (whole) return start == std::string::npos ? "" : line.substr(start);
  }
  return "";
}

uint64_t Machine::number(const std::string& path,
                         const std::string& name) const {
  return std::strtoull(field(path, name).c_str(), nullptr, 10);
}

bool Machine::hasCapability(int capability) const {
  const uint64_t effective =
      std::strtoull(field("/proc/self/status", "CapEff").c_str(), nullptr, 16);
  return (effective >> capability & 1) != 0;
}

std::set<int> Machine::allowedCpus() const {
  return parseCpuList(field("/proc/self/status", "Cpus_allowed_list"));
}

std::set<int> parseCpuList(const std::string& text) {
  std::set<int> cpus;
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');) {
    int first = 0;
    int last = 0;
    const int read = std::sscanf(part.c_str(), "%d-%d", &first, &last);
    if (read < 1) continue;
    for (int cpu = first; cpu <= (read == 2 ? last : first); cpu++) {
      cpus.insert(cpu);
    }
  }
  return cpus;
}

std::string cpuList(const std::set<int>& cpus) {
  std::string list;
  for (auto first = cpus.begin(); first != cpus.end();) {
    auto last = first;
    auto next = std::next(first);
    for (; next != cpus.end() && *next == *last + 1; ++next) last = next;
    list += (list.empty() ? "" : ",") + std::to_string(*first);
    if (last != first) list += "-" + std::to_string(*last);
    first = next;
  }
  return list;
}

}  // namespace ofswitch
