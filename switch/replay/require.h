// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "message.h"

namespace ofswitch {

// What the host answers as a text, or a response, that says no, is thrown as
// std::runtime_error for a person.
void require(const std::string& error);
void require(const CommandResponse& response, const std::string& what);

}  // namespace ofswitch
