// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <cstdint>

namespace ofswitch {

// Who writes to the trace log.
inline constexpr std::array kLogFacilities = {"OpenFlow", "Controller",
                                              "ControlDoor"};

inline constexpr uint32_t kMaxLogLevel = 31;

// All levels up to this one, as a mask.
constexpr uint32_t logLevelMask(uint32_t level) {
  return static_cast<uint32_t>((uint64_t{2} << level) - 1);
}

}  // namespace ofswitch
