// SPDX-License-Identifier: BSD-3-Clause
#include "qsbr.h"

// The inline flavour of the header declares the reader's record.
#define _LGPL_SOURCE
#include <urcu-qsbr.h>

namespace bess {
namespace {

// Registering twice would corrupt liburcu's list of readers.
bool IsReader() { return URCU_TLS(urcu_qsbr_reader).registered != 0; }

}  // namespace

QsbrReader::QsbrReader() : registered_here_(!IsReader()) {
  if (registered_here_) {
    rcu_register_thread();
  }
}

QsbrReader::~QsbrReader() {
  if (registered_here_) {
    rcu_unregister_thread();
  }
}

QsbrOffline::QsbrOffline() : was_online_(IsReader() && rcu_read_ongoing()) {
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
