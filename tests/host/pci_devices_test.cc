// SPDX-License-Identifier: BSD-3-Clause
//
// Cards that a port may have, on a machine made of files: in a mount namespace
// of the test's own, in which /sys and /dev are empty to begin with.
#include <gtest/gtest.h>
#include <rte_eal.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>

#include "eal.h"
#include "ports/internal/host_checks.h"

namespace {

namespace fs = std::filesystem;
using bess::internal::CheckPci;

constexpr char kCard[] = "0000:03:00.0";

void Write(const fs::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

// Empties some of a machine for this process alone. Answers why it cannot be,
// and nothing when it is.
std::string EnterEmptyMachine(std::initializer_list<const char*> empty = {
                                  "/sys", "/dev"}) {
  const std::string uid = std::to_string(geteuid());
  const std::string gid = std::to_string(getegid());
  const int user = geteuid() == 0 ? 0 : CLONE_NEWUSER;
  if (unshare(CLONE_NEWNS | user) != 0) {
    return std::string("cannot make a mount namespace: ") + strerror(errno);
  }
  if (user != 0) {
    Write("/proc/self/setgroups", "deny");
    Write("/proc/self/uid_map", "0 " + uid + " 1");
    Write("/proc/self/gid_map", "0 " + gid + " 1");
  }
  bool mounted = mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  for (const char* dir : empty) {
    mounted = mounted && mount("none", dir, "tmpfs", 0, nullptr) == 0;
  }
  return mounted ? "" : std::string("cannot mount: ") + strerror(errno);
}

// Links a file of the card's to something of that name.
void Link(const std::string& file, const std::string& name) {
  const fs::path device = fs::path("/sys/bus/pci/devices") / kCard;
  fs::create_directories(device);
  fs::remove(device / file);
  if (!name.empty()) {
    fs::create_symlink(fs::path("../../somewhere") / name, device / file);
  }
}

class PciDevicesTest : public testing::Test {
 protected:
  void SetUp() override {
    int status = 0;
    const pid_t child = fork();
    if (child == 0) {
      _exit(EnterEmptyMachine().empty() ? 0 : 1);
    }
    waitpid(child, &status, 0);
    if (status != 0) {
      GTEST_SKIP() << "no mount namespaces here";
    }
  }

  // What `check` writes to standard error in a process on the empty machine.
  template <typename F>
  static void OnEmptyMachine(F check, const std::string& expected) {
    GTEST_FLAG_SET(death_test_style, "fast");
    const auto body = [&] {
      const std::string error = EnterEmptyMachine();
      fprintf(stderr, "<%s>", error.empty() ? check().c_str() : error.c_str());
      _exit(0);
    };
    EXPECT_EXIT(body(), testing::ExitedWithCode(0), "^<" + expected + ">$");
  }

  static void WithDriver(const std::string& driver,
                         const std::string& expected) {
    OnEmptyMachine(
        [&] {
          Link("driver", driver);
          return CheckPci(kCard);
        },
        expected);
  }

  static std::string Remedy() {
    return "; give it to DPDK: dpdk-devbind.py --bind=vfio-pci 0000:03:00.0";
  }
};

// DPDK is told of those that are a port's, and of no others: it would take
// what another program has.
TEST_F(PciDevicesTest, AreLookedForWhenAPortIsOne) {
  if (!fs::exists("/sys/bus/pci")) {
    GTEST_SKIP() << "no PCI here";
  }
  const auto start = [](const char* driver) {
    std::string error = EnterEmptyMachine({"/sys/bus/pci"});
    if (error.empty()) {
      Link("driver", driver);
      const fs::path device = fs::path("/sys/bus/pci/devices") / kCard;
      for (const char* file : {"vendor", "device", "subsystem_vendor",
                               "subsystem_device", "class"}) {
        Write(device / file, "0x1234\n");
      }
      Write(device / "resource", "");
      error = bess::InitEal({.memory_mb = 64, .pci = {kCard}});
    }
    fprintf(stderr, "<%s%d>", error.c_str(), rte_eal_has_pci());
    _exit(0);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(start("mlx5_core"), testing::ExitedWithCode(0), "<1>$");
  EXPECT_EXIT(start("igb"), testing::ExitedWithCode(0), "<0>$");
}

TEST_F(PciDevicesTest, MayHaveTheseDrivers) {
  for (const char* driver :
       {"vfio-pci", "uio_pci_generic", "igb_uio", "mlx5_core", "mlx4_core"}) {
    SCOPED_TRACE(driver);
    WithDriver(driver, "");
  }
}

TEST_F(PciDevicesTest, AreTheKernelsWithAnyOther) {
  for (const std::string driver :
       {"i40e", "igb", "vfio", "uio_pci", "pci-stub", "nmlx5"}) {
    SCOPED_TRACE(driver);
    WithDriver(driver, "the kernel's driver " + driver + " has it" + Remedy());
  }
}

TEST_F(PciDevicesTest, NeedADriver) {
  WithDriver("", "the device has no kernel driver" + Remedy());
  OnEmptyMachine([] { return CheckPci("0000:04:00.0"); },
                 "there is no PCI device at 0000:04:00.0; see: "
                 "dpdk-devbind.py --status");
}

TEST_F(PciDevicesTest, NeedTheirGroupsFile) {
  const auto withGroup = [](const char* driver, bool file) {
    return [=] {
      Link("driver", driver);
      Link("iommu_group", "12");
      fs::create_directory("/dev/vfio");
      if (file) {
        Write("/dev/vfio/12", "");
      }
      return CheckPci(kCard);
    };
  };
  OnEmptyMachine(withGroup("vfio-pci", true), "");
  OnEmptyMachine(withGroup("vfio-pci", false),
                 "/dev/vfio/12: No such file or directory; run as root or give "
                 "this user the file");
  OnEmptyMachine(withGroup("igb_uio", false), "");
}

}  // namespace
