// SPDX-License-Identifier: BSD-3-Clause
//
// Options of the commands that fill tables in a host of their own.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ofswitch {

inline constexpr char kFlowFilesHelp[] =
    "Flow text files (- is standard input), or .json command lists";

void addPortsOption(CLI::App* command, std::vector<uint16_t>* ports,
                    const std::string& help);
void addModuleOption(CLI::App* command, std::string* path);
// `what` the memory is for.
void addMemoryOptions(CLI::App* command, const std::string& what,
                      size_t* memoryMb, size_t* buildMb);

}  // namespace ofswitch
