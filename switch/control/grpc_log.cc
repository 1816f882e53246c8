// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/grpc_log.h"

#include <grpc/support/log.h>

#include <cstdlib>
#include <string_view>

#include "platform/mio/mio.h"
#include "platform/twinlog/twinlog.h"
#include "switch/terminal/standard_error.h"

namespace ofswitch {
namespace {

const Mio::TraceHandle trace("ControlDoor", 0);

// Without GRPC_VERBOSITY only errors come here.
void keep(gpr_log_func_args* args) {
  const std::string_view message = args->message;
  TWINLOG_TRACE(trace, 0, "gRPC: %s", message);
  // The process ends behind it, and the log with it.
  if (message.starts_with("assertion failed")) {
    printError("ofswitch: gRPC: {}:{}: {}\n", args->file, args->line, message);
  }
}

}  // namespace

void keepGrpcMessages() {
  if (std::getenv("GRPC_VERBOSITY") == nullptr) gpr_set_log_function(keep);
}

}  // namespace ofswitch
