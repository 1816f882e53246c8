// SPDX-License-Identifier: BSD-3-Clause
#include "ports/internal/kernel_interface.h"

#include <linux/ethtool.h>
#include <linux/filter.h>
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
#include <iterator>

namespace bess::internal {
namespace {

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

}  // namespace

KernelInterface::KernelInterface(unsigned index) : index_(index) {}

std::string KernelInterface::name() const {
  char name[IF_NAMESIZE];
  return if_indextoname(index_, name) != nullptr ? name : "";
}

std::optional<bool> KernelInterface::up() const {
  ifreq request = {};
  if (Ask(name(), SIOCGIFFLAGS, &request) != 0) {
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
  if (Ask(name(), SIOCETHTOOL, &request) != 0) {
    return std::nullopt;
  }
  const uint32_t mbps = ethtool_cmd_speed(&link);
  return mbps == static_cast<uint32_t>(SPEED_UNKNOWN) ? std::nullopt
                                                      : std::optional(mbps);
}

std::optional<unsigned> KernelInterface::mtu() const {
  ifreq request = {};
  if (Ask(name(), SIOCGIFMTU, &request) != 0) {
    return std::nullopt;
  }
  return static_cast<unsigned>(request.ifr_mtu);
}

int KernelInterface::set_mtu(unsigned mtu) const {
  ifreq request = {};
  request.ifr_mtu = static_cast<int>(mtu);
  return Ask(name(), SIOCSIFMTU, &request);
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

// By a filter: sockets that share an interface's frames among each other cannot
// be told to with PACKET_IGNORE_OUTGOING.
int PacketSockets::IgnoreOutgoing() const {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS,
               static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, UINT32_MAX),
  };
  const sock_fprog filter = {.len = std::size(steps), .filter = steps};
  for (int fd : fds_) {
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter)) <
        0) {
      return errno;
    }
  }
  return 0;
}

void PacketSockets::SendWaiting() const {
  for (int fd : fds_) {
    int past_failure = 0;
    socklen_t len = sizeof(past_failure);
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &past_failure, &len);
    sendto(fd, nullptr, 0, MSG_DONTWAIT, nullptr, 0);
  }
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
