// SPDX-License-Identifier: BSD-3-Clause
#pragma once

// Builds that watch or count what runs are slower: of_test says how much.
#ifndef OPENFLOW_TIME_FACTOR
#define OPENFLOW_TIME_FACTOR 1
#endif

namespace openflow_test {

// What may take `limit` in an ordinary build may take this long here.
template <class Duration>
constexpr Duration timeLimit(Duration limit) {
  return limit * OPENFLOW_TIME_FACTOR;
}

}  // namespace openflow_test
