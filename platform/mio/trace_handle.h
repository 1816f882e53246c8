// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace Mio {

// A named group of trace statements. Which of its levels (0 to 31, 0 the
// gravest) go to text is a bit mask. Facilities live as long as the process.
struct TraceFacility {
  std::string name;
  std::atomic<uint32_t> levels{0};
};

// Through which a part of the program traces. Handles of one name share one
// facility. Thread-safe.
class TraceHandle {
 public:
  // Turns `levels` on, in addition to those that are on already.
  TraceHandle(const char* facility, uint32_t levels);

  bool enabled(unsigned level) const {
    return level < 32 &&
           (facility_->levels.load(std::memory_order_relaxed) >> level & 1) !=
               0;
  }
  const char* name() const { return facility_->name.c_str(); }

 private:
  TraceFacility* facility_;
};

// Which levels of a facility go to text: bit n for level n. The facility need
// not have a handle yet.
void setTraceLevels(const std::string& facility, uint32_t mask);
uint32_t traceLevels(const std::string& facility);

}  // namespace Mio
