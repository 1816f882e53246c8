// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <dlfcn.h>

namespace openflow_test {

// The library's function of type F that a test program's own version stands in
// front of; null if there is none. Any thread.
template <class F>
F* next(const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

}  // namespace openflow_test
