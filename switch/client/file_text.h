// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <istream>
#include <string>

namespace ofswitch {

// All that is left to read. `name` stands in errors. Throws ClientError.
std::string readAll(std::istream& in, const std::string& name);
std::string readFile(const std::string& path);

}  // namespace ofswitch
