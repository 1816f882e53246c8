// SPDX-License-Identifier: BSD-3-Clause
#include "ports/internal/host_checks.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace bess::internal {
namespace {

namespace fs = std::filesystem;

constexpr char kTunDevice[] = "/dev/net/tun";

bool HasCapability(int capability) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("CapEff:")) {
      const unsigned long long effective =
          strtoull(line.c_str() + strlen("CapEff:"), nullptr, 16);
      return (effective >> capability & 1) != 0;
    }
  }
  return true;  // let the system decide
}

std::string Needs(const std::string& what, const std::string& capability) {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  return what + " needs the capability " + capability +
         ": run as root, or once: setcap cap_net_admin,cap_net_raw=ep " +
         (error ? "PROGRAM" : program.string());
}

std::string InterfaceNames() {
  std::string list;
  if (struct if_nameindex* names = if_nameindex()) {
    for (auto* one = names; one->if_index != 0; one++) {
      list += (list.empty() ? "" : ", ") + std::string(one->if_name);
    }
    if_freenameindex(names);
  }
  return list;
}

std::string Quoted(const std::string& path) { return "'" + path + "'"; }

}  // namespace

bool IsInterface(const std::string& name) {
  return if_nametoindex(name.c_str()) != 0;
}

std::string CheckInterface(const std::string& name) {
  if (IsInterface(name)) {
    return "";
  }
  return "there is no network interface '" + name + "'; there are " +
         InterfaceNames();
}

std::string CheckPacketSockets() {
  return HasCapability(CAP_NET_RAW) ? ""
                                    : Needs("a packet socket", "CAP_NET_RAW");
}

std::string CheckTun() {
  const int fd = open(kTunDevice, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    const std::string why = strerror(errno);
    return std::string(kTunDevice) + ": " + why +
           (errno == EACCES ? "; run as root"
                            : "; load the kernel's driver: modprobe tun");
  }
  close(fd);
  return HasCapability(CAP_NET_ADMIN)
             ? ""
             : Needs("a tap interface", "CAP_NET_ADMIN");
}

std::string CheckReadable(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return "cannot read " + Quoted(path) + ": " + strerror(errno);
  }
  struct stat file;
  const bool directory = fstat(fd, &file) == 0 && S_ISDIR(file.st_mode);
  close(fd);
  return directory ? "cannot read " + Quoted(path) + ": it is a directory" : "";
}

std::string CheckCreatable(const std::string& path) {
  std::error_code error;
  if (fs::exists(path, error)) {
    return access(path.c_str(), W_OK) == 0
               ? ""
               : "cannot write " + Quoted(path) + ": " + strerror(errno);
  }
  const fs::path folder = fs::path(path).parent_path();
  const std::string where = folder.empty() ? "." : folder.string();
  return access(where.c_str(), W_OK | X_OK) == 0
             ? ""
             : "cannot make " + Quoted(path) + ": " + strerror(errno);
}

std::string CheckPci(const std::string& address) {
  std::error_code error;
  const fs::path device = "/sys/bus/pci/devices/" + address;
  if (!fs::exists(device, error)) {
    return "there is no PCI device at " + address +
           "; see: dpdk-devbind.py --status";
  }
  const std::string driver =
      fs::read_symlink(device / "driver", error).filename();
  const bool userspace = driver == "vfio-pci" || driver == "uio_pci_generic" ||
                         driver == "igb_uio";
  // Mellanox devices stay with their kernel driver.
  if (!userspace && !driver.starts_with("mlx")) {
    return (driver.empty() ? "the device has no kernel driver"
                           : "the kernel's driver " + driver + " has it") +
           "; give it to DPDK: dpdk-devbind.py --bind=vfio-pci " + address;
  }
  if (driver == "vfio-pci") {
    const std::string group =
        fs::read_symlink(device / "iommu_group", error).filename();
    if (const std::string file = "/dev/vfio/" + group;
        !group.empty() && access(file.c_str(), R_OK | W_OK) != 0) {
      return file + ": " + strerror(errno) +
             "; run as root or give this user the file";
    }
  }
  return "";
}

}  // namespace bess::internal
