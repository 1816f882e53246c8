// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string_view>

namespace ofswitch {

// Tells the service manager that started this process, if it asked to be told,
// how far the process is: "READY=1", "STOPPING=1" (see sd_notify(3)).
void tellServiceManager(std::string_view state);

}  // namespace ofswitch
