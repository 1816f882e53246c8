// SPDX-License-Identifier: BSD-3-Clause
//
// Keeps the books of what one operation takes from DPDK's heap, the ordinary
// heap and liburcu, and refuses it one request of its choice.
//
//   for (int n = 0;; n++) {
//     Ledger::Watch watch(n);  // the n-th request fails
//     operation();
//     if (!watch.refused()) break;  // it asks for less than that
//     ...
//   }
//
// The test program's own versions of the allocation functions do the work.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace Ledger {

// How many of what: blocks or requests by tag. Tags are
//   "openflowentry"   DPDK's type string; "(none)" without one
//   "new", "new[]"    of the ordinary heap, "new nothrow" for that form
//   "hash table"      a liburcu hash table (a request, never a block)
//   "mapping"         memory mapped for a build (a request, never a block)
using Tally = std::map<std::string, int>;

// While it lives, requests of its thread are numbered from 0, and the one that
// it was told of fails. One at a time. Flow nodes are given in any case: to
// have none is fatal.
class Watch {
 public:
  static constexpr int kNone = -1;

  explicit Watch(int failing = kNone);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Ends it early, where there is one. The answers below stay.
  static void stop();

  bool refused() const;
  std::string refusedTag() const;
  int requests() const;

  // The requests before the refused one, by tag.
  const Tally& granted() const;
};

// The blocks that were taken under any Watch and not given back since, on
// whatever thread.
Tally live();

// Gives DPDK's blocks and arrays back, which nobody must hold any more, so that
// a leak checker sees only what else is lost. Others are forgotten: a trace
// statement's first run may have taken them for good.
void settle();

}  // namespace Ledger
