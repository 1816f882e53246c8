// SPDX-License-Identifier: BSD-3-Clause
//
// JSON command lists of any content. What is accepted must be within the
// module's contract, so here it goes to the module, which ends the process over
// anything that is not.
#include <string>

#include "fuzz/target.h"
#include "switch/flow/command_list.h"
#include "tests/support/module_harness.h"

namespace {

using openflow_fuzz::fail;
using openflow_test::ModuleHarness;

// Large enough for any sane list, small enough for one classifier build.
constexpr size_t kMaxAdds = 200;

bool small(const ofswitch::CommandList& list) {
  size_t adds = 0;
  for (const ofswitch::Command& command : list.commands) {
    if (const auto* update =
            std::get_if<quil::pb::OpenFlowUpdateFlowsArg>(&command.argument)) {
      adds += static_cast<size_t>(update->adds_size());
    }
  }
  return adds <= kMaxAdds;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ofswitch::CommandListReader reader;
  const ofswitch::CommandList list = reader.read(
      std::string_view(reinterpret_cast<const char*>(data), size), "fuzz.json");
  for (const ofswitch::Diagnostic& refusal : list.refusals) {
    if (refusal.reason.empty()) fail("a refusal without reason");
  }
  if (!list.ok() || list.commands.empty() || !small(list)) return 0;

  ModuleHarness harness;
  for (const ofswitch::Command& command : list.commands) {
    const auto answer = harness.command(command.name(), command.message());
    if (answer.error().code() != 0 && answer.error().errmsg().empty()) {
      fail("{} failed without a reason", command.name());
    }
  }
  return 0;
}
