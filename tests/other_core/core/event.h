// SPDX-License-Identifier: BSD-3-Clause
#pragma once

namespace bess {

enum class Event { PreResume };

}  // namespace bess
