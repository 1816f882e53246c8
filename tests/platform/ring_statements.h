// SPDX-License-Identifier: BSD-3-Clause
//
// What the tests of rings share: writing statements, and the texts of entries.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "platform/ringlog/ringlog.h"

namespace openflow_test {

template <class... Args>
void write(Ringlog::Ring& ring, const Ringlog::Site& site,
           const Args&... args) {
  const std::array<Ringlog::Argument, sizeof...(Args)> arguments{
      Ringlog::Argument::of(args)...};
  ring.write(site, arguments);
}

inline const Ringlog::Site& numberSite() {
  static const Ringlog::Site& site =
      Ringlog::internSite("Test", 2, "numberSite", "number %s");
  return site;
}

inline std::vector<std::string> texts(
    const std::vector<Ringlog::Entry>& entries) {
  std::vector<std::string> texts;
  for (const Ringlog::Entry& entry : entries) {
    texts.push_back(entry.text);
  }
  return texts;
}

}  // namespace openflow_test
