// SPDX-License-Identifier: BSD-3-Clause
// A plug-in that traces; tests unload it and read what it left in the ring.
#include "platform/twinlog/twinlog.h"

extern "C" void traceFromPlugin(unsigned number) {
  static const Mio::TraceHandle handle("TracingPlugin", 0);
  TWINLOG_TRACE(handle, 3, "plug-in says %s", number);
}
