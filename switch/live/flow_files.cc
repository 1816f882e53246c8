// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_files.h"

#include <algorithm>
#include <iterator>

#include "switch/flow/flow_reader.h"

namespace ofswitch {

ConfiguredFlows readFlowFiles(const SwitchConfig& config) {
  const FlowReader reader({.allowTimeouts = true});
  ConfiguredFlows read;
  for (const ConfiguredFile& file : config.flowFiles) {
    FlowFile flows = reader.read(file.path);
    std::ranges::move(flows.flows, std::back_inserter(read.flows));
    for (const Diagnostic& refusal : flows.refusals) {
      // One without a line is about the file, which may be the wrong one.
      read.refusals.push_back(refusal.line == 0 ? file.placed(refusal.text())
                                                : refusal.text());
    }
  }
  return read;
}

}  // namespace ofswitch
