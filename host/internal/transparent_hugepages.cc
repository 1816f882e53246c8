// SPDX-License-Identifier: BSD-3-Clause
#include "internal/transparent_hugepages.h"

#include <rte_memory.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <iterator>
#include <string>

#include "eal.h"

namespace bess::internal {
namespace {

bool KernelHasThem() {
  std::ifstream file(kHugePageModes);
  return AllowsHugePages(std::string(std::istreambuf_iterator<char>(file), {}));
}

// Copies what has been written to the first `len` bytes of `file`; what has not
// is zero on both sides. Answers whether it could.
bool CopyWritten(int file, char* to, off_t len) {
  off_t at = 0;
  while ((at = lseek(file, at, SEEK_DATA)) >= 0 && at < len) {
    const off_t hole = lseek(file, at, SEEK_HOLE);
    if (hole <= at) {
      return false;
    }
    for (const off_t end = hole < len ? hole : len; at < end;) {
      const ssize_t got =
          pread(file, to + at, static_cast<size_t>(end - at), at);
      if (got <= 0) {
        return false;
      }
      at += got;
    }
  }
  return true;
}

bool Replace(const rte_memseg_list& list) {
  void* const base = list.base_va;
  const int file = rte_memseg_get_fd(rte_mem_virt2memseg(base, &list));
  if (file < 0) {
    return false;
  }
  void* fresh = mmap(nullptr, list.len, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (fresh == MAP_FAILED) {
    return false;
  }
  if (!CopyWritten(file, static_cast<char*>(fresh),
                   static_cast<off_t>(list.len)) ||
      mremap(fresh, list.len, list.len, MREMAP_MAYMOVE | MREMAP_FIXED, base) ==
          MAP_FAILED) {
    munmap(fresh, list.len);
    return false;
  }
  return madvise(base, list.len, MADV_HUGEPAGE) == 0;
}

}  // namespace

bool UseTransparentHugepages() {
  if (!KernelHasThem()) {
    return false;
  }
  bool replaced = false;
  rte_memseg_list_walk_thread_unsafe(
      [](const rte_memseg_list* list, void* arg) {
        *static_cast<bool*>(arg) |= !list->external && Replace(*list);
        return 0;
      },
      &replaced);
  return replaced;
}

}  // namespace bess::internal
