// SPDX-License-Identifier: BSD-3-Clause
#include "ports/internal/kernel_interface.h"

#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace bess::internal {
namespace {

std::string NameOf(unsigned index) {
  char name[IF_NAMESIZE];
  return if_indextoname(index, name) != nullptr ? name : "";
}

// Asks about the interface or changes it. Answers an errno value, 0 on success.
int Ask(const std::string& name, unsigned long what, ifreq* request) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return errno;
  }
  strncpy(request->ifr_name, name.c_str(), IFNAMSIZ - 1);
  const int error = ioctl(fd, what, request) < 0 ? errno : 0;
  close(fd);
  return error;
}

// A column of the interface's line in the kernel's table of counters, from 0.
std::optional<uint64_t> ReadCounter(const std::string& name, int column) {
  std::ifstream table("/proc/thread-self/net/dev");
  for (std::string line; std::getline(table, line);) {
    const size_t colon = line.find(':');
    const size_t start = line.find_first_not_of(' ');
    if (colon == std::string::npos || start > colon ||
        line.compare(start, colon - start, name) != 0) {
      continue;
    }
    std::istringstream numbers(line.substr(colon + 1));
    uint64_t value = 0;
    for (int i = 0; i <= column; i++) {
      numbers >> value;
    }
    if (numbers) {
      return value;
    }
  }
  return std::nullopt;
}

constexpr int kTxDroppedColumn = 11;

}  // namespace

KernelInterface::KernelInterface(unsigned index)
    : name_(NameOf(index)), tx_dropped_before_(ReadTxDropped()) {}

std::optional<bool> KernelInterface::up() const {
  ifreq request = {};
  if (Ask(name_, SIOCGIFFLAGS, &request) != 0) {
    return std::nullopt;
  }
  constexpr int kUp = IFF_UP | IFF_RUNNING;
  return (request.ifr_flags & kUp) == kUp;
}

std::optional<uint32_t> KernelInterface::speed() const {
  ethtool_cmd link = {};
  link.cmd = ETHTOOL_GSET;
  ifreq request = {};
  request.ifr_data = reinterpret_cast<char*>(&link);
  if (Ask(name_, SIOCETHTOOL, &request) != 0) {
    return std::nullopt;
  }
  const uint32_t mbps = ethtool_cmd_speed(&link);
  return mbps == static_cast<uint32_t>(SPEED_UNKNOWN) ? std::nullopt
                                                      : std::optional(mbps);
}

std::optional<unsigned> KernelInterface::mtu() const {
  ifreq request = {};
  if (Ask(name_, SIOCGIFMTU, &request) != 0) {
    return std::nullopt;
  }
  return static_cast<unsigned>(request.ifr_mtu);
}

int KernelInterface::set_mtu(unsigned mtu) const {
  ifreq request = {};
  request.ifr_mtu = static_cast<int>(mtu);
  return Ask(name_, SIOCSIFMTU, &request);
}

uint64_t KernelInterface::ReadTxDropped() const {
  return ReadCounter(name_, kTxDroppedColumn).value_or(0);
}

uint64_t KernelInterface::tx_dropped() const {
  const uint64_t now = ReadTxDropped();
  return now > tx_dropped_before_ ? now - tx_dropped_before_ : 0;
}

PacketSockets::PacketSockets(unsigned index) {
  std::error_code error;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const int fd = atoi(entry.path().filename().c_str());
    sockaddr_ll address = {};
    socklen_t len = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &len) == 0 &&
        address.sll_family == AF_PACKET &&
        address.sll_ifindex == static_cast<int>(index)) {
      fds_.push_back(fd);
    }
  }
}

int PacketSockets::IgnoreOutgoing() const {
  const int on = 1;
  for (int fd : fds_) {
    if (setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on)) <
        0) {
      return errno;
    }
  }
  return 0;
}

uint64_t PacketSockets::Missed() {
  const std::lock_guard lock(mutex_);
  for (int fd : fds_) {
    tpacket_stats counts = {};
    socklen_t len = sizeof(counts);
    if (getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &counts, &len) == 0) {
      missed_ += counts.tp_drops;
    }
  }
  return missed_;
}

}  // namespace bess::internal
