// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Ringlog {

// A trace statement: what is the same each time it runs.
struct Site {
  std::string facility;
  unsigned level;
  std::string function;
  std::string format;
};

// The statement with these parts. Equal ones are one Site, which is never
// freed: the ring may refer to statements of a plug-in that is gone, and a
// plug-in that comes back finds its old ones. May allocate and lock: call it
// once per statement and keep the reference. Throws std::bad_alloc, and then
// there is no new one. Thread-safe.
const Site& internSite(std::string_view facility, unsigned level,
                       std::string_view function, std::string_view format);

// How many statements there are.
size_t countSites();

}  // namespace Ringlog
