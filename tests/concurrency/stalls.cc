// SPDX-License-Identifier: BSD-3-Clause
//
// Now and then a worker loses its processor in the middle of a lookup, for as
// long as it takes to replace what it is looking at: this program's own version
// of the library's function sleeps before it answers.
#include <dlfcn.h>
#include <rte_acl.h>

#include <chrono>
#include <thread>

namespace {

constexpr unsigned kLookupsPerStall = 4000;

// liburcu's callback thread works every ten milliseconds.
constexpr std::chrono::milliseconds kStall{15};

thread_local unsigned lookups = 0;

}  // namespace

extern "C" int rte_acl_classify(const rte_acl_ctx* ctx, const uint8_t** data,
                                uint32_t* results, uint32_t num,
                                uint32_t categories) {
  static auto* real = reinterpret_cast<decltype(rte_acl_classify)*>(
      dlsym(RTLD_NEXT, "rte_acl_classify"));
  const int rc = real(ctx, data, results, num, categories);
  if (++lookups % kLookupsPerStall == 0) std::this_thread::sleep_for(kStall);
  return rc;
}
