// SPDX-License-Identifier: BSD-3-Clause
//
// Words that ovs-ofctl(8) knows and this switch refuses, each with the reason
// and, where there is one, the form to write instead.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ofswitch {

std::optional<std::string> unsupportedField(std::string_view name);
std::optional<std::string> unsupportedAction(std::string_view name);
// Words about a flow that neither match nor act, such as "send_flow_rem".
std::optional<std::string> unsupportedFlag(std::string_view name);

}  // namespace ofswitch
