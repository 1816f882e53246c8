// SPDX-License-Identifier: BSD-3-Clause
//
// What a machine and a process have for a device.
#include "ports/internal/host_checks.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>

namespace {

using bess::internal::CheckCreatable;
using bess::internal::CheckReadable;
using bess::internal::CheckTun;

ptrdiff_t OpenFiles() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator());
}

TEST(HostChecksTest, LeaveNoFileOpen) {
  const ptrdiff_t before = OpenFiles();
  CheckTun();
  EXPECT_EQ(OpenFiles(), before);
  EXPECT_EQ(CheckReadable("/proc/self/status"), "");
  EXPECT_NE(CheckReadable("/proc"), "");
  EXPECT_EQ(OpenFiles(), before);
}

TEST(HostChecksTest, AFileWithoutAFolderIsMadeHere) {
  EXPECT_EQ(CheckCreatable("no_such_file.pcap"), "");
}

// What `check` finds, on standard error of a process without permissions.
template <typename F>
void ExpectWithoutPermissions(F check, const std::string& expected) {
  const auto body = [&] {
    const bool other = geteuid() != 0 || setresuid(65534, 65534, 65534) == 0;
    fprintf(stderr, "<%s>", check().c_str());
    _exit(other ? 0 : 1);
  };
  EXPECT_EXIT(body(), testing::ExitedWithCode(0), "<" + expected + ">$");
}

// Reading a folder is not enough to make files in it, nor reading a file to
// write it.
TEST(HostChecksTest, TellWhereNoFileCanBeMade) {
  ExpectWithoutPermissions([] { return CheckCreatable("/no_such_file.pcap"); },
                           "cannot make '/no_such_file.pcap': Permission "
                           "denied");
  ExpectWithoutPermissions([] { return CheckCreatable("/etc/passwd"); },
                           "cannot write '/etc/passwd': Permission denied");
  ExpectWithoutPermissions([] { return CheckReadable("/etc/shadow"); },
                           "cannot read '/etc/shadow': Permission denied");
}

TEST(HostChecksTest, TapsNeedADriverAndACapability) {
  ExpectWithoutPermissions(CheckTun,
                           "(/dev/net/tun: Permission denied; run as root|"
                           "/dev/net/tun: .*; load the kernel's driver: "
                           "modprobe tun|"
                           "a tap interface needs the capability "
                           "CAP_NET_ADMIN: run as root, or once: setcap .*)");
}

}  // namespace
