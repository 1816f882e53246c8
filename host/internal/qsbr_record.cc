// SPDX-License-Identifier: BSD-3-Clause
#include "internal/qsbr_record.h"

// The inline flavour of the header declares the reader's record. It stays in
// this file: elsewhere liburcu is called, so that tools can watch the calls.
#define _LGPL_SOURCE
#include <urcu-qsbr.h>

namespace bess::internal {

bool IsQsbrReader() { return URCU_TLS(urcu_qsbr_reader).registered != 0; }

}  // namespace bess::internal
