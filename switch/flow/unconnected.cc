// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/unconnected.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace ofswitch {

std::vector<Diagnostic> unconnectedOutputs(const Flow& flow,
                                           const SwitchPorts& ports) {
  std::vector<Diagnostic> notes;
  for (const Action& action : flow.actions) {
    const auto port = static_cast<uint16_t>(action.value);
    if (action.kind == ActionKind::kOutput &&
        !std::ranges::binary_search(ports, port)) {
      notes.push_back({flow.file, flow.line,
                       fmt::format("output:{}: port {} is not connected, "
                                   "what is sent there goes nowhere",
                                   port, port)});
    }
  }
  return notes;
}

}  // namespace ofswitch
