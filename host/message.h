// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "pb/bess_msg.pb.h"

// Answers to module commands.
using CommandResponse = bess::pb::CommandResponse;

// Success with nothing to say.
CommandResponse CommandSuccess();

// Success; `reply` is packed into the answer's data.
CommandResponse CommandSuccess(const google::protobuf::Message& reply);

// Failure with an errno value (or a negative one) and the system's text for it.
CommandResponse CommandFailure(int code);

// Failure with a code and a text of the command's own.
[[gnu::format(printf, 2, 3)]] CommandResponse CommandFailure(int code,
                                                             const char* fmt,
                                                             ...);
