// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "message.h"
#include "service.pb.h"

namespace ofswitch {

// Runs a module's command for somebody who may be wrong: an argument that is
// not the one that the command takes, or one that its module must not be given,
// is refused in front of it. Any thread but a worker.
CommandResponse runModuleCommand(const bess::pb::ModuleCommandRequest& request);

}  // namespace ofswitch
