// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/security/server_credentials.h>

#include <memory>

#include "switch/live/config.h"

namespace ofswitch {

// Whether the configuration names certificates.
bool hasTls(const SwitchConfig& config);

// Credentials that take only clients with a certificate of the configured
// authority. Throws StartError with the name of the file that is of no use.
std::shared_ptr<grpc::ServerCredentials> makeTlsCredentials(
    const SwitchConfig& config);

}  // namespace ofswitch
