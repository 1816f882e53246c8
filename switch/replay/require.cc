// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/require.h"

#include <fmt/format.h>

#include <stdexcept>

namespace ofswitch {

void require(const std::string& error) {
  if (!error.empty()) {
    throw std::runtime_error(error);
  }
}

void require(const CommandResponse& response, const std::string& what) {
  if (response.error().code() != 0) {
    throw std::runtime_error(fmt::format("{}: {} (code {})", what,
                                         response.error().errmsg(),
                                         response.error().code()));
  }
}

}  // namespace ofswitch
