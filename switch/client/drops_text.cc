// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/drops_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "switch/live/drop_causes.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/text_table.h"

namespace ofswitch {
namespace {

// Causes of the switch as a whole have no table, which is also how table 0 is
// told.
bool isOfTable(const pb::DropCause& drop) {
  const auto known =
      std::ranges::find(kSwitchDrops, drop.name(), &SwitchDropInfo::name);
  return known != kSwitchDrops.end() && known->cause < SwitchDrop::kNoSuchPort;
}

bool isSame(const pb::DropCause& a, const pb::DropCause& b) {
  return a.name() == b.name() && a.table() == b.table() && a.port() == b.port();
}

uint64_t packetsBefore(const std::vector<pb::DropCause>& before,
                       const pb::DropCause& drop) {
  const auto same = std::ranges::find_if(
      before, [&](const pb::DropCause& one) { return isSame(one, drop); });
  return same == before.end() ? 0 : same->packets();
}

}  // namespace

std::string dropPlace(const pb::DropCause& drop) {
  if (drop.port() != 0) return fmt::format("port {}", drop.port());
  if (isOfTable(drop)) return fmt::format("table {}", drop.table());
  return "switch";
}

std::string dropsText(const std::vector<pb::DropCause>& drops,
                      const std::vector<pb::DropCause>* before,
                      double seconds) {
  std::vector<std::string> head = {"packets"};
  if (before != nullptr) head.emplace_back("per second");
  head.insert(head.end(), {"where", "cause", ""});
  TextTable table(head, 3);
  for (const pb::DropCause& drop : drops) {
    if (drop.packets() == 0) continue;
    std::vector<std::string> row = {std::to_string(drop.packets())};
    if (before != nullptr) {
      row.push_back(rateText(gainPerSecond(packetsBefore(*before, drop),
                                           drop.packets(), seconds)));
    }
    row.insert(row.end(), {dropPlace(drop), drop.name(), drop.sentence()});
    table.add(row);
  }
  return table.hasRows() ? "\nDropped\n" + table.text() : "";
}

}  // namespace ofswitch
