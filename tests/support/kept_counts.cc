// SPDX-License-Identifier: BSD-3-Clause
//
// For builds that count what is reached. A process writes its counts when it
// returns from main; here it does so, too, when it ends by _exit, as children
// of tests do, or by abort, as behind a check that fails.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

extern "C" {
#include <gcov.h>  // has no idea of C++

void _exit(int status) {
  __gcov_dump();
  _Exit(status);
}

void abort() noexcept {
  __gcov_dump();
  using Abort = decltype(&abort);
  reinterpret_cast<Abort>(dlsym(RTLD_NEXT, "abort"))();
  __builtin_unreachable();
}
}
