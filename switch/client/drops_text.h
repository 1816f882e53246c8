// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <vector>

#include "switch.pb.h"

namespace ofswitch {

// "table 3", "port 2" or "switch": where packets ended for this cause.
std::string dropPlace(const pb::DropCause& drop);

// A paragraph with a line for each cause that packets met, with the rates
// since `before` if that is not null; nothing if there is none.
std::string dropsText(const std::vector<pb::DropCause>& drops,
                      const std::vector<pb::DropCause>* before = nullptr,
                      double seconds = 0);

}  // namespace ofswitch
