// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdio>
#include <string>

namespace bess {

// Collects what DPDK's libraries and drivers log while it lives, instead of
// letting it through to standard error: why a device or a build is refused is
// said only there. One at a time.
class DpdkLogCapture {
 public:
  DpdkLogCapture();
  // Hands what was collected to VLOG(1).
  ~DpdkLogCapture();
  DpdkLogCapture(const DpdkLogCapture&) = delete;
  DpdkLogCapture& operator=(const DpdkLogCapture&) = delete;

  // What libraries and drivers have said, in one line; empty when they said
  // nothing.
  std::string Summary() const;

 private:
  FILE* before_;
};

}  // namespace bess
