// SPDX-License-Identifier: BSD-3-Clause
#include "qsbr.h"

#include <urcu-qsbr.h>

#include "internal/qsbr_record.h"

namespace bess {

using internal::IsQsbrReader;

// Registering twice would corrupt liburcu's list of readers.
QsbrReader::QsbrReader() : registered_here_(!IsQsbrReader()) {
  if (registered_here_) {
    rcu_register_thread();
  }
}

QsbrReader::~QsbrReader() {
  if (registered_here_) {
    rcu_unregister_thread();
  }
}

QsbrOffline::QsbrOffline() : was_online_(IsQsbrReader() && rcu_read_ongoing()) {
  if (was_online_) {
    rcu_thread_offline();
  }
}

QsbrOffline::~QsbrOffline() {
  if (was_online_) {
    rcu_thread_online();
  }
}

}  // namespace bess
