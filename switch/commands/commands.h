// SPDX-License-Identifier: BSD-3-Clause
//
// The sub-commands. Each adds itself to the program's command line and, when
// it was asked for, runs and leaves the exit status.
#pragma once

#include <CLI/CLI.hpp>

namespace ofswitch {

void addCheckCommand(CLI::App* app, int* status);
void addDoctorCommand(CLI::App* app, int* status);
void addFlowsCommand(CLI::App* app, int* status);
void addLogCommand(CLI::App* app, int* status);
void addPortsCommand(CLI::App* app, int* status);
void addReplayCommand(CLI::App* app, int* status);
void addRunCommand(CLI::App* app, int* status);
void addStatsCommand(CLI::App* app, int* status);
void addTablesCommand(CLI::App* app, int* status);
void addTraceCommand(CLI::App* app, int* status);

}  // namespace ofswitch
