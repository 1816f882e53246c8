// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch check: would these flow files be taken?
#include <fmt/core.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "switch/commands/commands.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/flow_reader.h"
#include "switch/flow/translator.h"

namespace ofswitch {
namespace {

struct CheckOptions {
  std::vector<std::string> files;
  std::vector<uint16_t> ports;
  bool json = false;
  bool verbose = false;
};

int check(const CheckOptions& options) {
  std::vector<Flow> flows;
  std::vector<Diagnostic> refusals;
  for (const std::string& path : options.files) {
    FlowFile file = FlowReader().read(path);
    std::ranges::move(file.flows, std::back_inserter(flows));
    std::ranges::move(file.refusals, std::back_inserter(refusals));
  }
  for (const Diagnostic& refusal : refusals) {
    fmt::print(stderr, "{}\n", refusal.text());
  }
  fmt::print("{} flows accepted, {} refused\n", flows.size(), refusals.size());
  return refusals.empty() ? 0 : 1;
}

}  // namespace

void addCheckCommand(CLI::App* app, int* status) {
  CLI::App* command = app->add_subcommand(
      "check", "Tell for each line of flow files whether it would be taken");
  auto options = std::make_shared<CheckOptions>();
  command->add_option("FLOWS", options->files, "Flow text files")->required();
  command->callback([options, status] { *status = check(*options); });
}

}  // namespace ofswitch
