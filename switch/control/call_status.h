// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/support/status.h>

#include <exception>
#include <string_view>

namespace ofswitch {

// A status whose text is one line of printable characters, short enough for
// the header that carries it.
grpc::Status callStatus(grpc::StatusCode code, std::string_view text);

// What a call ends with that there is no place for.
grpc::Status tooManyCalls();

// What a call ends with whose work has thrown `error`.
grpc::Status statusOf(const std::exception_ptr& error);

}  // namespace ofswitch
