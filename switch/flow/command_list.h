// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "openflow.pb.h"
#include "switch/flow/command_checks.h"
#include "switch/flow/diagnostic.h"
#include "switch/flow/id_allocator.h"

namespace ofswitch {

// One command for the module.
struct Command {
  std::variant<quil::pb::OpenFlowUpdateFlowsArg, quil::pb::OpenFlowAclArg,
               quil::pb::OpenFlowGetStatsArg>
      argument;
  int line = 0;

  // As the module has registered it: "updateFlows", "setAclIds", "getStats".
  const char* name() const;
  const google::protobuf::Message& message() const;
};

// What one command file says. With refusals it must not be run at all.
struct CommandList {
  std::string name;
  std::vector<Command> commands;
  std::vector<Diagnostic> refusals;

  bool ok() const { return refusals.empty(); }
};

// Reads command lists: a JSON array of objects of one member, the command's
// name with its message in protobuf's JSON mapping. Everything that would be
// outside the module's contract is refused here. The reader remembers slot
// bindings from one list to the next, as the module does.
class CommandListReader {
 public:
  CommandList read(const std::string& path);
  CommandList read(std::string_view text, const std::string& name);

 private:
  SlotBindings bindings_;
};

// Keeps the allocator away from the identifiers and counters of a list.
void reserveIds(const CommandList& list, IdAllocator* ids);

}  // namespace ofswitch
