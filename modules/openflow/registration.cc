// SPDX-License-Identifier: BSD-3-Clause
#include <cstdint>
#include <functional>

#include "modules/openflow/openflow.h"

namespace {

constexpr uint16_t kNumGates = 8192;  // the host's maximum, both directions

// The host's THREAD_SAFE, wherever it declares the enumeration.
constexpr auto kThreadSafe = static_cast<decltype(Command::mt_safe)>(1);

// Announces the module class when the library is loaded and withdraws it when
// the library is unloaded.
class OpenFlow_class {
 public:
  OpenFlow_class() {
    ModuleBuilder::RegisterModuleClass(
        std::function<Module*()>([]() { return new OpenFlow(); }), "OpenFlow",
        "OpenFlow", "OpenFlow packet processing", kNumGates, kNumGates,
        OpenFlow::cmds, MODULE_INIT_FUNC(&OpenFlow::Init));
  }
  ~OpenFlow_class() { ModuleBuilder::DeregisterModuleClass("OpenFlow"); }
};

}  // namespace

// All three commands may run while workers run the module.
const Commands OpenFlow::cmds = {
    {"updateFlows", "OpenFlowUpdateFlowsArg",
     MODULE_CMD_FUNC(&OpenFlow::updateFlows), kThreadSafe},
    {"setAclIds", "OpenFlowAclArg", MODULE_CMD_FUNC(&OpenFlow::setAclIds),
     kThreadSafe},
    {"getStats", "OpenFlowGetStatsArg", MODULE_CMD_FUNC(&OpenFlow::getStats),
     kThreadSafe},
};

// Behind `cmds`, which its constructor copies.
static OpenFlow_class registration;
