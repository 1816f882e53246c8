// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "control.h"

// Of the leak checker, where there is one.
extern "C" [[gnu::weak]] void __lsan_disable();
extern "C" [[gnu::weak]] void __lsan_enable();

namespace openflow_test {

// The module never frees the records of a build that failed. While this lives,
// what commands allocate is no leak.
class KeptForGood {
 public:
  KeptForGood() { onCommandThread(__lsan_disable); }
  ~KeptForGood() { onCommandThread(__lsan_enable); }
  KeptForGood(const KeptForGood&) = delete;
  KeptForGood& operator=(const KeptForGood&) = delete;

 private:
  static void onCommandThread(void (*function)()) {
    if (function != nullptr) bess::ControlThread::Instance().Run(function);
  }
};

}  // namespace openflow_test
