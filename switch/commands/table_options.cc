// SPDX-License-Identifier: BSD-3-Clause
#include "switch/commands/table_options.h"

#include "switch/flow/flow.h"

namespace ofswitch {

void addPortsOption(CLI::App* command, std::vector<uint16_t>* ports,
                    const std::string& help) {
  command->add_option("--ports", *ports, help)
      ->type_name("N,N,...")
      ->delimiter(',')
      ->check(CLI::Range(1u, kMaxPort));
}

void addModuleOption(CLI::App* command, std::string* path) {
  command
      ->add_option("--module", *path,
                   "The OpenFlow module's library (default: OFSWITCH_MODULE, "
                   "beside the program, the build tree, the installation)")
      ->type_name("FILE.so");
}

void addMemoryOptions(CLI::App* command, const std::string& what,
                      size_t* memoryMb, size_t* buildMb) {
  command->add_option("--memory", *memoryMb, "Megabytes for " + what)
      ->type_name("MB")
      ->check(CLI::Range(128, 1 << 20))
      ->capture_default_str();
  command
      ->add_option("--build-memory", *buildMb,
                   "Megabytes that building a classifier may take beside that "
                   "(default: a quarter of what is available, 4096 at most)")
      ->type_name("MB")
      ->check(CLI::Range(16, 1 << 20));
}

}  // namespace ofswitch
