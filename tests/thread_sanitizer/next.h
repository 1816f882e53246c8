// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <dlfcn.h>

namespace tsan_models {

// The library's own version of the function that stands in front of it.
template <class F>
F* next(const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

}  // namespace tsan_models
