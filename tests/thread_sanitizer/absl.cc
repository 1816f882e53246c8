// SPDX-License-Identifier: BSD-3-Clause
//
// The locks of gRPC's libraries, as ThreadSanitizer should see them: what was
// done under a lock happens before what is done under it next. Their own code
// is not instrumented, and they wait by system calls.
//
// Debian's build of them also looks for cycles in the order in which locks are
// taken: it keeps a graph of all, under a spin lock, and with a thousand
// clients nobody else would get anything done. That is switched off.
#include <sanitizer/tsan_interface.h>

#include <cstdint>

#include "tests/support/next_definition.h"

using openflow_test::next;

namespace {

struct Duration {  // as absl passes one, and an absl::Time
  int64_t high;
  uint32_t low;
};

}  // namespace

// Declared by what the library exports: members of absl::Mutex and
// absl::CondVar are functions of their object.
extern "C" {

void lockMutex(void* mutex) __asm__("_ZN4absl7debian35Mutex4LockEv");
void unlockMutex(void* mutex) __asm__("_ZN4absl7debian35Mutex6UnlockEv");
bool tryLockMutex(void* mutex) __asm__("_ZN4absl7debian35Mutex7TryLockEv");
void waitFor(void* condition,
             void* mutex) __asm__("_ZN4absl7debian37CondVar4WaitEPNS0_5MutexE");
bool waitWithTimeout(void* condition, void* mutex, Duration timeout) __asm__(
    "_ZN4absl7debian37CondVar15WaitWithTimeoutEPNS0_5MutexENS0_8DurationE");
bool waitWithDeadline(void* condition, void* mutex, Duration deadline) __asm__(
    "_ZN4absl7debian37CondVar16WaitWithDeadlineEPNS0_5MutexENS0_4TimeE");

void lockMutex(void* mutex) {
  static auto* real =
      next<decltype(lockMutex)>("_ZN4absl7debian35Mutex4LockEv");
  real(mutex);
  __tsan_acquire(mutex);
}

void unlockMutex(void* mutex) {
  static auto* real =
      next<decltype(unlockMutex)>("_ZN4absl7debian35Mutex6UnlockEv");
  __tsan_release(mutex);
  real(mutex);
}

bool tryLockMutex(void* mutex) {
  static auto* real =
      next<decltype(tryLockMutex)>("_ZN4absl7debian35Mutex7TryLockEv");
  if (!real(mutex)) return false;
  __tsan_acquire(mutex);
  return true;
}

void waitFor(void* condition, void* mutex) {
  static auto* real =
      next<decltype(waitFor)>("_ZN4absl7debian37CondVar4WaitEPNS0_5MutexE");
  __tsan_release(mutex);
  real(condition, mutex);
  __tsan_acquire(mutex);
}

bool waitWithTimeout(void* condition, void* mutex, Duration timeout) {
  static auto* real = next<decltype(waitWithTimeout)>(
      "_ZN4absl7debian37CondVar15WaitWithTimeoutEPNS0_5MutexENS0_8DurationE");
  __tsan_release(mutex);
  const bool expired = real(condition, mutex, timeout);
  __tsan_acquire(mutex);
  return expired;
}

bool waitWithDeadline(void* condition, void* mutex, Duration deadline) {
  static auto* real = next<decltype(waitWithDeadline)>(
      "_ZN4absl7debian37CondVar16WaitWithDeadlineEPNS0_5MutexENS0_4TimeE");
  __tsan_release(mutex);
  const bool expired = real(condition, mutex, deadline);
  __tsan_acquire(mutex);
  return expired;
}

}  // extern "C"

namespace {

__attribute__((constructor)) void forgetLockOrder() {
  constexpr int kIgnore = 0;  // absl::OnDeadlockCycle
  // Not every program has gRPC.
  if (auto* set =
          next<void(int)>("_ZN4absl7debian329SetMutexDeadlockDetectionModeENS0_"
                          "15OnDeadlockCycleE")) {
    set(kIgnore);
  }
}

}  // namespace
