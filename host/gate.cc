// SPDX-License-Identifier: BSD-3-Clause
#include "gate.h"

#include "task.h"

namespace bess {

OGate::~OGate() {
  for (Pending& slot : pending_) {
    if (slot.task != nullptr) {
      slot.task->ForgetGate(&slot);
    }
  }
}

}  // namespace bess
