// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace bess {

struct EalOptions {
  // Memory for packets, classifiers and DPDK's heap. Without hugepages it is
  // taken from the system as it is touched and cannot grow beyond this; the
  // kernel makes huge pages of it then, if it makes any by itself.
  size_t memory_mb = 512;
  // From the kernel, not from files: nothing stays behind, however the process
  // ends, and no hugetlbfs needs to be mounted.
  bool hugepages = false;

  // The device strings of the PCI cards that will be ports. DPDK takes those at
  // its start and leaves all others alone, which may be another program's.
  std::vector<std::string> pci = {};

  // Keep the memory, without hugepages, in a file that virtual devices can hand
  // to other processes. It has no huge pages then.
  bool shareable = false;

  // Widest vector, in bits, that DPDK's libraries may use on processors that
  // have it.
  unsigned max_simd_bits = 512;

  // With a name, DPDK answers questions about this process on a socket in
  // RuntimeDir(), which is called so, followed by the number of the process.
  std::string telemetry = {};

  // Only errors on standard error.
  bool quiet = true;

  // Further arguments, as DPDK programs take them on their command line.
  std::vector<std::string> extra_args = {};
};

// Starts DPDK's environment, once a process; later calls do nothing, whatever
// their options. Answers an error text for a person, empty on success. The
// calling thread becomes DPDK's main lcore but stays on the processors that it
// may run on.
std::string InitEal(const EalOptions& options = {});

// Whether InitEal has succeeded.
bool EalReady();

// Whether DPDK's memory consists of pages of 2 MiB or more, reserved ones or
// such that the kernel makes by itself as it is touched.
bool HasHugePages();

// Where the kernel says for which memory it makes huge pages by itself, and
// whether that, as read there, is any at all.
inline constexpr char kHugePageModes[] =
    "/sys/kernel/mm/transparent_hugepage/enabled";
bool AllowsHugePages(std::string_view modes);

// Where DPDK keeps what this process shows to others; only its owner can look
// there. Empty when there is no such place, or before InitEal.
std::string RuntimeDir();

}  // namespace bess
