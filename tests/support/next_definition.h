// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <dlfcn.h>

namespace openflow_test {

// The library's function of type F that a version of one's own stands in front
// of; null if there is none. Any thread. Static, for "next" is counted from the
// object that this is in: two objects must not come to share one copy.
template <class F>
static F* next(const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

}  // namespace openflow_test
