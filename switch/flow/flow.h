// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "switch/flow/action.h"
#include "switch/flow/match.h"

namespace ofswitch {

inline constexpr unsigned kNumTables = 32;
inline constexpr uint16_t kDefaultPriority = 32768;
// Ports are output gates of the module; gate 0 leads to the controller.
inline constexpr unsigned kMaxPort = 8191;

// One flow as its line says it. Everything the module must do for it follows
// from `table`, `priority`, `match` and `actions`; the rest is the operator's.
struct Flow {
  uint8_t table = 0;
  uint16_t priority = kDefaultPriority;
  uint64_t cookie = 0;
  uint16_t idleTimeout = 0;  // seconds, 0: none
  uint16_t hardTimeout = 0;
  Match match;
  std::vector<Action> actions;

  std::string file;  // where it was read
  int line = 0;
  std::string text;  // the line, without comment and outer blanks

  // Equal when they do the same for the same operator, wherever they stand.
  friend bool operator==(const Flow& a, const Flow& b) {
    return a.table == b.table && a.priority == b.priority &&
           a.cookie == b.cookie && a.idleTimeout == b.idleTimeout &&
           a.hardTimeout == b.hardTimeout && a.match == b.match &&
           a.actions == b.actions;
  }
};

}  // namespace ofswitch
