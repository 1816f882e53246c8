// SPDX-License-Identifier: BSD-3-Clause
//
// A process without librte_acl, where builds cannot be limited; and what the
// limit is made from.
#include <gtest/gtest.h>
#include <sys/sysinfo.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "utils/acl_build_memory.h"
#include "utils/available_memory.h"

namespace Dpdk {
namespace {

namespace fs = std::filesystem;

TEST(WithoutLibrary, AScopeIsHarmless) {
  EXPECT_FALSE(aclBuildsAreLimited());
  setAclBuildLimit(1000);
  {
    const AclBuildScope scope;
    void* block = std::calloc(1000, 1000);
    EXPECT_NE(block, nullptr);
    std::free(block);
    EXPECT_EQ(scope.memory().peak, 0u);
    EXPECT_FALSE(scope.memory().refused);
  }
  EXPECT_EQ(lastAclBuild().limit, 1000u);
}

// A tree like /proc and /sys.
class AvailableMemory : public testing::Test {
 protected:
  AvailableMemory() {
    std::string name = fs::temp_directory_path() / "memory-XXXXXX";
    root_ = mkdtemp(name.data());
    write("proc/meminfo",
          "MemTotal:       24682000 kB\nMemFree:        20000000 kB\n"
          "MemAvailable:    8000 kB\nBuffers:  1 kB\n");
  }
  ~AvailableMemory() override { fs::remove_all(root_); }

  void write(const std::string& file, const std::string& text) {
    fs::create_directories((root_ / file).parent_path());
    std::ofstream(root_ / file) << text;
  }

  size_t available() const { return availableMemory(root_); }

  fs::path root_;
};

TEST(AvailableMemoryHere, IsNoMoreThanTheMachineHas) {
  struct sysinfo machine {};
  ASSERT_EQ(sysinfo(&machine), 0);
  EXPECT_LE(availableMemory(), size_t{machine.totalram} * machine.mem_unit);
}

TEST_F(AvailableMemory, IsTheMachines) { EXPECT_EQ(available(), 8000u * 1024); }

TEST_F(AvailableMemory, IsInALineBetweenOthersOfAnyKind) {
  write("proc/meminfo", "\nMemTotal\nMemFree: none\nMemAvailable: 9 kB\nx\n");
  EXPECT_EQ(available(), 9u * 1024);
  write("proc/meminfo", "MemTotal: 7 kB\nMemAvailable: much\n");
  EXPECT_EQ(available(), SIZE_MAX);
}

TEST_F(AvailableMemory, IsUnlimitedWhereNobodyTells) {
  fs::remove_all(root_ / "proc");
  EXPECT_EQ(available(), SIZE_MAX);
}

TEST_F(AvailableMemory, IsWhatTheControlGroupHasLeft) {
  write("proc/self/cgroup", "0::/a/b\n");
  write("sys/fs/cgroup/a/memory.max", "9000000\n");
  write("sys/fs/cgroup/a/memory.current", "6000000\n");
  write("sys/fs/cgroup/a/b/memory.max", "max\n");
  write("sys/fs/cgroup/a/b/memory.current", "5000000\n");
  EXPECT_EQ(available(), 3000000u);
  write("sys/fs/cgroup/a/b/memory.max", "5500000\n");
  EXPECT_EQ(available(), 500000u);
  write("sys/fs/cgroup/a/b/memory.stat",
        "anon 4000000\nfile 1000000\ninactive_file 200000\nslab 3\n");
  EXPECT_EQ(available(), 700000u) << "files read make room";
  write("sys/fs/cgroup/a/b/memory.max", "1000\n");
  EXPECT_EQ(available(), 0u);
  write("sys/fs/cgroup/a/b/memory.stat", "inactive_file 6000000\n");
  EXPECT_EQ(available(), 1000u) << "as if it were all files";
}

TEST_F(AvailableMemory, KnowsControlGroupsOfTheFirstVersion) {
  write("proc/self/cgroup", "9:name=systemd:/x\n4:cpu,memory:/a\n3:cpuset:/\n");
  write("sys/fs/cgroup/memory/a/memory.limit_in_bytes", "3000\n");
  write("sys/fs/cgroup/memory/a/memory.usage_in_bytes", "1000\n");
  EXPECT_EQ(available(), 2000u);
  write("sys/fs/cgroup/memory/a/memory.stat",
        "inactive_file 100\nactive_file 300\ntotal_inactive_file 500\n");
  EXPECT_EQ(available(), 2500u) << "with the groups below";
}

// In a container the group's own directory may be the mount.
TEST_F(AvailableMemory, LooksAtTheTopmostGroupItSees) {
  write("proc/self/cgroup", "0::/../../outside\n");
  write("sys/fs/cgroup/memory.max", "4000\n");
  write("sys/fs/cgroup/memory.current", "1000\n");
  EXPECT_EQ(available(), 3000u);
}

TEST_F(AvailableMemory, OfAMachineWithMoreThanItsGroup) {
  write("proc/self/cgroup", "0::/\n");
  write("sys/fs/cgroup/memory.max", "99999999999999\n");
  write("sys/fs/cgroup/memory.current", "1000\n");
  EXPECT_EQ(available(), 8000u * 1024);
}

TEST_F(AvailableMemory, IsUnlimitedWhereTheLineIsMissing) {
  write("proc/meminfo", "MemTotal: 24682000 kB\nMemFree: 20000000 kB\n");
  EXPECT_EQ(available(), SIZE_MAX);
  write("proc/meminfo", "MemTotal: much\nMemAvailable: 7 kB\n");
  EXPECT_EQ(available(), 7u * 1024);
}

TEST_F(AvailableMemory, OfAGroupThatDoesNotTellItsUseIsTheMachines) {
  write("proc/self/cgroup", "0::/\n");
  write("sys/fs/cgroup/memory.max", "4000\n");
  EXPECT_EQ(available(), 8000u * 1024);
}

TEST_F(AvailableMemory, SkipsLinesThatItDoesNotUnderstand) {
  write("proc/self/cgroup",
        "\nnonsense\n1:memory\n2:nomemory:/\n3:memoryless:/\n");
  write("sys/fs/cgroup/memory/memory.limit_in_bytes", "3000\n");
  write("sys/fs/cgroup/memory/memory.usage_in_bytes", "1000\n");
  EXPECT_EQ(available(), 8000u * 1024);
  write("proc/self/cgroup", "\nnonsense\n1:memory\n4:memory:/\n");
  EXPECT_EQ(available(), 2000u) << "and reads what stands behind them";
}

}  // namespace
}  // namespace Dpdk
