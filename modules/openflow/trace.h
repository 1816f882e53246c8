// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "platform/mio/mio.h"
#include "platform/twinlog/twinlog.h"

// The module's trace facility, "OpenFlow". Operators switch its levels by that
// name; no level goes to the text log until one does.
inline Mio::TraceHandle& _defaultTraceHandle() {
  static Mio::TraceHandle handle("OpenFlow", 0);
  return handle;
}

// Levels of the module's trace statements.
inline constexpr unsigned kTraceError = 0;  // something failed
inline constexpr unsigned kTraceStep = 2;   // a command step and its arguments
inline constexpr unsigned kTraceDump = 5;   // field by field

// OF_TRACE(level, "function text with a %s for every argument", arguments...)
#define OF_TRACE(level, ...) \
  TWINLOG_TRACE(_defaultTraceHandle(), level, __VA_ARGS__)
