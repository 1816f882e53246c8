// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <map>
#include <string>
#include <vector>

#include "switch/doctor/checks.h"
#include "switch/doctor/machine.h"
#include "tests/captures/capture_files.h"

namespace ofswitch {

// A machine made of files: one that lacks nothing, until a test takes or
// changes something.
//
//   cores 0-3, of which 2 and 3 are isolated; AVX-512; clock source tsc
//   16 GB of memory, 512 free hugepages
//   all drivers, all permissions
//   eth0, no offloads on; veth1 and veth2, two ends of one cable, likewise
//   0000:03:00.0, a card that vfio-pci holds
class FakeMachine {
 public:
  FakeMachine();

  void write(const std::string& path, const std::string& text);
  void link(const std::string& path, const std::string& target);
  void remove(const std::string& path);
  void addInterface(const std::string& name, int index, int peer);
  void addCard(const std::string& address, const std::string& driver);

  // Of the interfaces that have any on.
  std::map<std::string, std::vector<std::string>> offloads;

  Machine machine() const;

 private:
  std::filesystem::path at(const std::string& path) const;

  openflow_test::ScratchDir root_;
};

// "problem: sentence -> remedy", a line a finding.
std::vector<std::string> lines(const Findings& findings);

}  // namespace ofswitch
