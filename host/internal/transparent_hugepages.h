// SPDX-License-Identifier: BSD-3-Clause
#pragma once

namespace bess::internal {

// Gives DPDK's memory pages of 2 MiB where none were reserved for it. Without
// reserved ones DPDK's memory is a file, for other processes to share, and
// kernels make no huge pages for such files; memory of this process alone gets
// them as it is touched, if only it asks. So that is what lies at the same
// addresses afterwards, with the same content.
//
// To be called as soon as DPDK has started, before anything else uses its
// memory, and not when devices have been told where it lies. Answers whether
// there will be huge pages; if not, everything works as it did before.
bool UseTransparentHugepages();

}  // namespace bess::internal
