// SPDX-License-Identifier: BSD-3-Clause
#pragma once

namespace bess::internal {

// Whether the calling thread is a registered QSBR reader; liburcu has no
// function that tells.
bool IsQsbrReader();

}  // namespace bess::internal
