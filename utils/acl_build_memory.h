// SPDX-License-Identifier: BSD-3-Clause
//
// A limit for the memory that building a classifier takes.
//
// rte_acl_build makes its tries in blocks of ordinary heap and gives all of
// them back when it is done. How much that is cannot be told from the rules
// beforehand: some thousand rules may take 10 MiB or 10 GiB. Without a limit
// the kernel would end the process. The library is well prepared for a heap
// that has no more (it cleans up and answers -ENOMEM), so that is what it gets
// to see: while an AclBuildScope is open on a thread, that thread's calloc
// calls out of librte_acl are counted, and refused at the limit. What they get
// is mapped for them alone, in huge pages where possible: builds jump about in
// their memory and are up to a fifth faster so, and all of it goes back to the
// system when the library frees it.
//
// Only librte_acl's own imports of calloc and free are redirected (see
// internal/import_slot.h). The other ways were tried on paper, and lost:
//   a calloc of our own  in front of libc's would be everybody's, takes a place
//                        in every program's link order, and fights with
//                        sanitizers and other allocators about who is first;
//   --wrap               needs a static librte_acl, a second one in a process
//                        whose drivers bring the shared one along: both
//                        register the same names with DPDK, which is fatal;
//   a resource limit     fails whichever thread asks next;
//   a child process      would build twice, once in vain, and forks a process
//                        with DPDK's memory and threads;
//   rte_acl_config       max_size limits the finished classifier alone.
// Where librte_acl is not a shared library of its own, nothing is redirected
// and builds are as unlimited as they were: aclBuildsAreLimited() tells.
#pragma once

#include <cstddef>
#include <vector>

namespace Dpdk {

// What builds may take at their peak. The limit is one for the process; it
// holds for builds that begin later. Until one is set it is what fits the
// memory that is available (of the machine's, or of the control group's if that
// has less) at the first look. Any thread.
size_t aclBuildLimit();
void setAclBuildLimit(size_t bytes);

// What fits `available` bytes: a quarter, 64 MiB at least and 4 GiB at most.
size_t aclBuildLimitFor(size_t available);

// Whether the limit has an effect in this process.
bool aclBuildsAreLimited();

// What a build took, in bytes at its peak; `refused` is whether it
// asked for more than the limit, and so failed; `starved`, whether it asked for
// more than the system had, within the limit.
struct AclBuildMemory {
  size_t peak = 0;
  size_t limit = 0;
  bool refused = false;
  bool starved = false;
};

// The build that ended last, on whatever thread.
AclBuildMemory lastAclBuild();

// Open around calls of rte_acl_build, on their thread; not nested.
class AclBuildScope {
 public:
  AclBuildScope();
  ~AclBuildScope();
  AclBuildScope(const AclBuildScope&) = delete;
  AclBuildScope& operator=(const AclBuildScope&) = delete;

  const AclBuildMemory& memory() const { return memory_; }

 private:
  static void* countedCalloc(size_t count, size_t size);
  static void countedFree(void* block);
  static bool redirectCalls();
  friend bool aclBuildsAreLimited();

  struct Block {
    char* start = nullptr;  // what the library has
    size_t bytes = 0;
    void* mapping = nullptr;  // what the system has given
    size_t mapped = 0;
  };

  void* map(size_t bytes) noexcept;
  bool unmap(void* start);

  AclBuildMemory memory_;
  size_t used_ = 0;
  std::vector<Block> blocks_;
};

}  // namespace Dpdk
