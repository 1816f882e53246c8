// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace ofswitch {

// What can be read off a machine: its files, below a root that tests choose,
// and what only the kernel's calls tell, which tests replace.
class Machine {
 public:
  // The offloads of an interface that are on, as ethtool -K calls them.
  using Offloads = std::function<std::vector<std::string>(const std::string&)>;

  Machine();
  Machine(std::filesystem::path root, Offloads offloads);

  // Paths are absolute. What is not there reads as nothing.
  bool exists(const std::string& path) const;
  // Without the end of the last line.
  std::string read(const std::string& path) const;
  // Names, sorted.
  std::vector<std::string> list(const std::string& path) const;
  // Where a symbolic link leads.
  std::filesystem::path link(const std::string& path) const;
  // Whether this process may make files in the folder.
  bool writable(const std::string& path) const;
  bool usable(const std::string& path) const;  // read and written

  // Numbers of processors, as the kernel lists them: "0-3,6".
  std::set<int> cpus(const std::string& path) const;
  // The value of a line such as "CapEff:  0000..." in a file.
  std::string field(const std::string& path, const std::string& name) const;
  uint64_t number(const std::string& path, const std::string& name) const;

  // Of this process.
  bool hasCapability(int capability) const;
  std::set<int> allowedCpus() const;

  std::vector<std::string> offloads(const std::string& interface) const {
    return offloads_(interface);
  }

 private:
  std::filesystem::path at(const std::string& path) const;

  std::filesystem::path root_;
  Offloads offloads_;
};

// Understands "0-3,6"; nothing else is in the answer.
std::set<int> parseCpuList(const std::string& text);
// The way back: {0, 1, 2, 6} -> "0-2,6".
std::string cpuList(const std::set<int>& cpus);

}  // namespace ofswitch
