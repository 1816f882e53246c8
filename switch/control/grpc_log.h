// SPDX-License-Identifier: BSD-3-Clause
#pragma once

namespace ofswitch {

// From now on what gRPC itself has to say, such as why a TLS handshake failed,
// goes into the trace log as "ControlDoor" instead of to standard error, which
// anyone who can connect could fill. Not where GRPC_VERBOSITY asks for it.
// Thread-safe.
void keepGrpcMessages();

}  // namespace ofswitch
