// SPDX-License-Identifier: BSD-3-Clause
//
// The C library's strtok with a state for each thread. DPDK's telemetry serves
// every client in a thread of its own and cuts up what they ask with strtok; as
// the C library has it, two who ask at once are given each other's words, or
// what another thread's stack has left of them.
#include <cstring>

extern "C" char* strtok(char* text, const char* delimiters) noexcept {
  thread_local char* rest = nullptr;
  return strtok_r(text, delimiters, &rest);
}
