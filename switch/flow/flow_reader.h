// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <string>
#include <string_view>
#include <utility>
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
  // Called now and then while a file is read, with bytes done and in all.
  std::function<void(uint64_t done, uint64_t total)> progress = {};

  // A line that is longer is refused; reading ends, with a refusal, when there
  // would be more. Without limits, a pipe could take all memory.
  size_t longestLine = SIZE_MAX;
  size_t mostFlows = 4'000'000;
  size_t mostRefusals = 100'000;
};

// Reads flows in the syntax of ovs-ofctl(8), one a line; '#' starts a
// comment. A flow is taken only if the module can do exactly what it says.
class FlowReader {
 public:
  explicit FlowReader(FlowReaderOptions options = {})
      : options_(std::move(options)) {}

  // "-" is standard input.
  FlowFile read(const std::string& path) const;
  FlowFile read(std::istream& in, const std::string& name) const;

  // One flow. Throws Refused.
  Flow readLine(std::string_view line) const;

 private:
  FlowFile read(std::istream& in, const std::string& name,
                uint64_t total) const;

  FlowReaderOptions options_;
};

}  // namespace ofswitch
