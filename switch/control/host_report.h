// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "service.pb.h"

namespace ofswitch {

// What the host consists of and what it has counted. Any thread but a worker;
// each is a consistent picture.
bess::pb::ListModuleClassesResponse listModuleClasses();
bess::pb::ListPluginsResponse listPlugins();
bess::pb::ListModulesResponse listModules();
bess::pb::GetModuleResponse getModule(
    const bess::pb::GetModuleRequest& request);
bess::pb::ListPortsResponse listPorts();
bess::pb::ListWorkersResponse listWorkers();
bess::pb::StatisticsResponse getStatistics();

}  // namespace ofswitch
