// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

namespace ofswitch {

// Connects to a socket once and hangs up, because gRPC does not tell why it
// cannot. Answers what is wrong and what to do about it, or nothing.
std::string probeUnixSocket(const std::string& path);
std::string probeAddress(const std::string& address);

}  // namespace ofswitch
