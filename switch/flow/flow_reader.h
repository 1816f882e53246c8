// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <istream>
#include <string>
#include <string_view>
#include <vector>

#include "switch/flow/diagnostic.h"
#include "switch/flow/flow.h"

namespace ofswitch {

// What one flow text file says: its flows in file order, and every line that
// cannot be taken. A file with refusals must not be applied at all.
struct FlowFile {
  std::string name;
  std::vector<Flow> flows;
  std::vector<Diagnostic> refusals;

  bool ok() const { return refusals.empty(); }
};

struct FlowReaderOptions {
  // Whether flows may expire. Where nothing runs in real time they may not.
  bool allowTimeouts = false;
};

// Reads flows in the syntax of ovs-ofctl(8), one a line; '#' starts a
// comment. A flow is taken only if the module can do exactly what it says.
class FlowReader {
 public:
  explicit FlowReader(FlowReaderOptions options = {}) : options_(options) {}

  FlowFile read(const std::string& path) const;
  FlowFile read(std::istream& in, const std::string& name) const;

  // One flow. Throws Refused.
  Flow readLine(std::string_view line) const;

 private:
  FlowReaderOptions options_;
};

}  // namespace ofswitch
