// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

namespace ofswitch {

// Where the OpenFlow module's library is: `given` if not empty, else what the
// environment variable OFSWITCH_MODULE says, else the first that exists of:
// beside the program, in the build tree, in the library directory of the
// installation. `setting` is how a person gives it, for the error. Throws
// std::runtime_error naming the places when it is nowhere.
std::string findModule(const std::string& given,
                       const std::string& setting = "--module");

}  // namespace ofswitch
