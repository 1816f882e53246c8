// SPDX-License-Identifier: BSD-3-Clause
#include "utils/internal/import_slot.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <rte_acl.h>
#include <rte_malloc.h>
#include <sys/mman.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "utils/acl_build_memory.h"

namespace {

bool refuseMprotect = false;
bool refuseDlopen = false;

}  // namespace

// The program's own versions of the system's functions.
extern "C" void* dlopen(const char* file, int mode) noexcept {
  using Dlopen = decltype(&dlopen);
  static const auto real = reinterpret_cast<Dlopen>(dlsym(RTLD_NEXT, "dlopen"));
  return refuseDlopen ? nullptr : real(file, mode);
}

extern "C" int mprotect(void* address, size_t size, int protection) noexcept {
  using Mprotect = decltype(&mprotect);
  static const auto real =
      reinterpret_cast<Mprotect>(dlsym(RTLD_NEXT, "mprotect"));
  if (refuseMprotect) {
    errno = EACCES;
    return -1;
  }
  return real(address, size, protection);
}

namespace Dpdk::internal {
namespace {

constexpr char kLibrary[] = "librte_acl.so";

int frees = 0;

void countFree(void* block) {
  frees++;
  rte_free(block);
}

// Makes the library free something, and says how often it came by here.
int countLibrarysFrees() {
  frees = 0;
  rte_acl_param param = {};
  param.name = "slots";
  param.rule_size = RTE_ACL_RULE_SZ(1);
  rte_acl_ctx* ctx = rte_acl_create(&param);
  EXPECT_NE(ctx, nullptr);
  rte_acl_free(ctx);
  return frees;
}

// How the library's memory is mapped: its parts' permissions.
std::string permissions() {
  std::ifstream maps("/proc/self/maps");
  std::string all;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(kLibrary) == std::string::npos) continue;
    all += line.substr(0, line.find(' ') + 5) + "\n";
  }
  return all;
}

// As the dynamic linker has left it, before anything was redirected.
const std::string permissionsAtStart = permissions();

TEST(ImportSlot, IsLeftAloneWhereItsPageCannotBeOpened) {
  refuseMprotect = true;
  EXPECT_FALSE(redirectImport(kLibrary, "rte_free",
                              reinterpret_cast<void*>(&countFree)));
  refuseMprotect = false;
  EXPECT_EQ(countLibrarysFrees(), 0);
}

TEST(ImportSlot, IsOpenOnlyForTheStore) {
  const std::string before = permissions();
  EXPECT_NE(before, "");
  EXPECT_EQ(before, permissionsAtStart) << "nothing stays open";
  EXPECT_TRUE(redirectImport(kLibrary, "rte_free",
                             reinterpret_cast<void*>(&countFree)));
  EXPECT_EQ(permissions(), before);
  EXPECT_GT(countLibrarysFrees(), 0);
  void* own = rte_malloc("own", 64, 0);
  frees = 0;
  rte_free(own);
  EXPECT_EQ(frees, 0) << "nobody else's calls change";
  EXPECT_TRUE(
      redirectImport(kLibrary, "rte_free", reinterpret_cast<void*>(&rte_free)));
  EXPECT_EQ(countLibrarysFrees(), 0);
}

TEST(ImportSlot, IsLeftAloneInALibraryThatIsOnItsWayOut) {
  refuseDlopen = true;
  EXPECT_FALSE(redirectImport(kLibrary, "rte_free",
                              reinterpret_cast<void*>(&countFree)));
  refuseDlopen = false;
  EXPECT_EQ(countLibrarysFrees(), 0);
}

int maps = 0;

void* countMmap(void* address, size_t size, int protection, int flags, int file,
                off_t offset) {
  maps++;
  return mmap(address, size, protection, flags, file, offset);
}

// Ours are bound call by call, and their slots stay open.
TEST(ImportSlot, OfALibraryThatIsBoundLazily) {
  refuseMprotect = true;  // nobody needs it
  EXPECT_TRUE(redirectImport("libacl_build_memory.so", "mmap",
                             reinterpret_cast<void*>(&countMmap)));
  refuseMprotect = false;
  rte_acl_param param = {};
  param.name = "lazy";
  param.rule_size = RTE_ACL_RULE_SZ(1);
  param.max_rule_num = 1;
  rte_acl_ctx* ctx = rte_acl_create(&param);
  RTE_ACL_RULE_DEF(Rule, 1) rule = {};
  rule.data = {1, 1, 1};
  EXPECT_EQ(rte_acl_add_rules(ctx, reinterpret_cast<rte_acl_rule*>(&rule), 1),
            0);
  rte_acl_config config = {};
  config.num_categories = 1;
  config.num_fields = 1;
  config.defs[0] = {RTE_ACL_FIELD_TYPE_BITMASK, 1, 0, 0, 0};
  {
    const AclBuildScope scope;
    EXPECT_EQ(rte_acl_build(ctx, &config), 0);
  }
  EXPECT_GT(maps, 0);
  rte_acl_free(ctx);
  EXPECT_TRUE(redirectImport("libacl_build_memory.so", "mmap",
                             reinterpret_cast<void*>(&mmap)));
}

void* finalized = nullptr;

void noteFinalizing(void* library) { finalized = library; }

// What is imported as data has its slot in another table; the C library's way
// to end a library is, in every one of them.
TEST(ImportSlot, OfAFunctionThatIsImportedByItsAddress) {
  void* const end = dlsym(RTLD_DEFAULT, "__cxa_finalize");
  ASSERT_NE(end, nullptr);
  EXPECT_TRUE(redirectImport(kLibrary, "__cxa_finalize",
                             reinterpret_cast<void*>(&noteFinalizing)));
  EXPECT_TRUE(redirectImport(kLibrary, "__cxa_finalize", end));
  EXPECT_EQ(permissions(), permissionsAtStart);
  EXPECT_EQ(finalized, nullptr) << "nobody has ended it meanwhile";
}

// The kernel's library is listed like any other, and imports nothing.
TEST(ImportSlot, IsNotFoundInTheKernelsLibrary) {
  EXPECT_FALSE(redirectImport("linux-vdso", "calloc", nullptr));
}

}  // namespace
}  // namespace Dpdk::internal
