// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch doctor: what this machine lacks for a switch, and what mends it.
#include "switch/doctor/doctor.h"

#include <fmt/core.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "switch/commands/commands.h"
#include "switch/live/config.h"

namespace ofswitch {
namespace {

struct DoctorOptions {
  std::string config;
  bool json = false;
};

// What a switch without ports needs, on a machine that has no configuration.
SwitchConfig configOf(const DoctorOptions& options) {
  if (!options.config.empty()) return loadConfig(options.config);
  return std::filesystem::exists(kDefaultConfig) ? loadConfig(kDefaultConfig)
                                                 : SwitchConfig();
}

int run(const DoctorOptions& options) {
  const SwitchConfig config = configOf(options);
  const std::vector<Finding> findings = examine(Machine(), config);
  fmt::print("{}",
             options.json ? findingsJson(findings) : findingsText(findings));
  return healthy(findings) ? 0 : 1;
}

}  // namespace

void addDoctorCommand(CLI::App* app, int* status) {
  CLI::App* command = app->add_subcommand(
      "doctor", "Tell what this machine lacks for a switch and what mends it");
  auto options = std::make_shared<DoctorOptions>();
  command
      ->add_option(
          "-c,--config", options->config,
          fmt::format("Configuration file of the switch [{}, if there is one]",
                      kDefaultConfig))
      ->type_name("FILE.yaml");
  command->add_flag("--json", options->json, "Findings as JSON");
  command->callback([options, status] { *status = run(*options); });
}

}  // namespace ofswitch
