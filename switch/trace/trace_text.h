// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "switch.pb.h"

namespace ofswitch {

// A reply without refusal as a person reads it, a line for each fact.
std::string traceText(const pb::TraceReply& reply);

// The same for programs, one JSON object; frames are in hexadecimal.
std::string traceJson(const pb::TraceReply& reply);

}  // namespace ofswitch
