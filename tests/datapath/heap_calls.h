// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <functional>
#include <iosfwd>

namespace openflow_test {

// How often functions of a heap were called, those that give back included.
struct HeapCalls {
  int ordinary = 0;  // malloc and its kin, new and delete
  int dpdk = 0;      // rte_malloc and its kin

  bool operator==(const HeapCalls&) const = default;
};

std::ostream& operator<<(std::ostream& out, const HeapCalls& calls);

// What `work` calls on this thread, in whatever library.
HeapCalls heapCallsOf(const std::function<void()>& work);

}  // namespace openflow_test
