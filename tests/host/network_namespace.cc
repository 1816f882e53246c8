// SPDX-License-Identifier: BSD-3-Clause
#include "network_namespace.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

// What the kernel wants to know of a frame that it is to cut (virtio's header,
// in whose declaration a member is named "class").
struct OffloadHeader {
  uint8_t flags;
  uint8_t gso_type;
  uint16_t hdr_len;
  uint16_t gso_size;
  uint16_t csum_start;
  uint16_t csum_offset;
};
static_assert(sizeof(OffloadHeader) == 10);

bool WriteFile(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  return !file.fail();
}

}  // namespace

std::string EnterNetworkNamespace() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  const int user = uid == 0 ? 0 : CLONE_NEWUSER;
  if (unshare(CLONE_NEWNET | user) != 0) {
    return std::string("cannot make a network namespace: ") + strerror(errno);
  }
  if (user != 0 &&
      (!WriteFile("/proc/self/setgroups", "deny") ||
       !WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
       !WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))) {
    return "cannot become root in a namespace";
  }
  // The kernel's own frames would be counted with the tests'.
  if (!WriteFile("/proc/sys/net/ipv6/conf/all/disable_ipv6", "1") ||
      !WriteFile("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1")) {
    return "cannot switch IPv6 off";
  }
  return system("ip link set lo up") == 0 ? "" : "there is no program 'ip'";
}

void Ip(const std::string& args) {
  const std::string command = "ip " + args;
  ASSERT_EQ(system(command.c_str()), 0) << command;
}

uint64_t ReceivedBy(const std::string& interface) {
  std::ifstream table("/proc/net/dev");
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string name;
    uint64_t bytes = 0;
    uint64_t packets = 0;
    if (words >> name >> bytes >> packets && name == interface + ":") {
      return packets;
    }
  }
  ADD_FAILURE() << "no interface " << interface;
  return 0;
}

OtherNamespace::OtherNamespace() {
  int ready[2];
  EXPECT_EQ(pipe(ready), 0);
  pid_ = fork();
  if (pid_ == 0) {
    const char answer = unshare(CLONE_NEWNET) == 0;
    if (write(ready[1], &answer, 1) == 1) {
      pause();
    }
    _exit(0);
  }
  char answer = 0;
  EXPECT_EQ(read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 1);
  close(ready[0]);
  close(ready[1]);
}

OtherNamespace::~OtherNamespace() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

RawSocket::RawSocket(const std::string& interface)
    : fd_(socket(AF_PACKET, SOCK_RAW, 0)) {
  const int on = 1;
  setsockopt(fd_, SOL_PACKET, PACKET_VNET_HDR, &on, sizeof(on));
  setsockopt(fd_, SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on));
  setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on));
  const timeval patience = {.tv_sec = 0, .tv_usec = 200000};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  sockaddr_ll address = {};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
            0)
      << interface << ": " << strerror(errno);
}

RawSocket::~RawSocket() { close(fd_); }

bool RawSocket::Send(const std::string& frame) {
  const OffloadHeader none = {};
  std::string message(reinterpret_cast<const char*>(&none), sizeof(none));
  message += frame;
  return send(fd_, message.data(), message.size(), 0) ==
         static_cast<ssize_t>(message.size());
}

bool RawSocket::SendUncut(size_t len) {
  constexpr size_t kHeaders = 14 + 20 + 20;
  std::string frame(len, '\0');
  frame[5] = 0x0d;
  frame[12] = 0x08;
  char* ip = &frame[14];
  ip[0] = 0x45;
  ip[2] = static_cast<char>((len - 14) >> 8);
  ip[3] = static_cast<char>(len - 14);
  ip[8] = 64;
  ip[9] = IPPROTO_TCP;
  ip[20 + 12] = 0x50;  // 20 bytes of TCP header

  OffloadHeader cut = {};
  cut.flags = 1;     // the checksum is to be filled in
  cut.gso_type = 1;  // TCP over IPv4
  cut.hdr_len = kHeaders;
  cut.gso_size = 1400;
  cut.csum_start = 14 + 20;
  cut.csum_offset = 16;
  std::string message(reinterpret_cast<const char*>(&cut), sizeof(cut));
  message += frame;
  return send(fd_, message.data(), message.size(), 0) ==
         static_cast<ssize_t>(message.size());
}

std::optional<std::string> RawSocket::Receive() {
  char buffer[65536];
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata))];
  iovec data = {.iov_base = buffer, .iov_len = sizeof(buffer)};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t len = recvmsg(fd_, &message, 0);
  if (len < static_cast<ssize_t>(sizeof(OffloadHeader))) {
    return std::nullopt;
  }
  std::string frame(buffer + sizeof(OffloadHeader),
                    static_cast<size_t>(len) - sizeof(OffloadHeader));
  // The kernel keeps the tag beside the frame.
  if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
    tpacket_auxdata aux;
    memcpy(&aux, CMSG_DATA(header), sizeof(aux));
    if ((aux.tp_status & TP_STATUS_VLAN_VALID) != 0) {
      const uint16_t tag[] = {htons(aux.tp_vlan_tpid), htons(aux.tp_vlan_tci)};
      frame.insert(12, reinterpret_cast<const char*>(tag), sizeof(tag));
    }
  }
  return frame;
}
