// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>

#define MAX_GATES 8192

namespace bess {

using gate_idx_t = uint16_t;
class IGate;
class OGate;

}  // namespace bess
