// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>

#include "switch/client/reports.h"
#include "switch/flow/diagnostic.h"

namespace ofswitch {

std::string logLine(const pb::LogEntry& entry) {
  const auto seconds =
      static_cast<std::time_t>(entry.time_ns() / 1'000'000'000);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:06} {}/{} {}\n",
                     fmt::localtime(seconds),
                     entry.time_ns() / 1'000 % 1'000'000, entry.facility(),
                     entry.level(), printable(entry.text()));
}

}  // namespace ofswitch
