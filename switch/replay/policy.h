// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <google/protobuf/any.pb.h>

#include <cstdint>
#include <string>
#include <vector>

#include "openflow.pb.h"
#include "switch/flow/diagnostic.h"
#include "switch/flow/flow.h"

namespace ofswitch {

// One command for the module, and where it was asked for.
struct PolicyCommand {
  std::string name;
  google::protobuf::Any arg;
  std::string where;
};

// One flow of the module that is in force after all commands.
struct PolicyRule {
  enum class Kind {
    kFlow,
    kGuard,       // drops what a flow with dec_ttl must not forward
    kEmptyTable,  // drops what enters a table that has no flow
  };

  Kind kind = Kind::kFlow;
  uint8_t table = 0;
  quil::pb::OpenFlowType family = quil::pb::OPENFLOW_TYPE_IPV4;
  uint32_t flowId = 0;
  uint32_t priority = 0;
  uint32_t packetCounterId = 0;
  uint32_t byteCounterId = 0;
  quil::pb::OfAction action;
};

// A flow as it was written, and the rules that stand for it.
struct PolicyFlow {
  std::string text;
  std::string where;  // file and line
  std::vector<size_t> rules;
};

// What all flow files together ask of the module.
struct Policy {
  std::vector<PolicyCommand> commands;
  std::vector<PolicyRule> rules;
  std::vector<PolicyFlow> flows;
  std::vector<uint16_t> ports;  // named by --ports, or else by inputs and flows
  uint32_t numCounters = 1;     // one more than the highest index in use

  std::vector<Diagnostic> refusals;  // if any, the rest means nothing
  std::vector<Diagnostic> notes;
};

// Reads flow text files and, where the name ends in .json, command lists. Each
// flow gets counters of its own, whatever a command list says, so that the
// packets of each are known.
// `inputPorts` and `ports` are what the command line names; no `ports` stands
// for every port that an input or a flow names.
Policy loadPolicy(const std::vector<std::string>& files,
                  const std::vector<uint16_t>& inputPorts,
                  const std::vector<uint16_t>& ports);

}  // namespace ofswitch
