// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/doctor/fake_machine.h"

namespace ofswitch {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kVeth[] = "net_af_packet0,iface=veth1";

class PortChecks : public testing::Test {
 protected:
  std::vector<std::string> port(const std::string& device) const {
    Findings out;
    checkPort(fake_.machine(), config_, {1, "port1", device, 1, 0}, &out);
    return lines(out);
  }
  std::vector<std::string> otherCards(const std::string& device) const {
    SwitchConfig config;
    config.ports = {{1, "port1", device, 1, 0}};
    Findings out;
    checkOtherCards(fake_.machine(), config, &out);
    return lines(out);
  }

  FakeMachine fake_;
  SwitchConfig config_;
};

TEST_F(PortChecks, LackNothing) {
  for (const char* device :
       {kVeth, "net_af_packet7,qpairs=2,iface=eth0", "net_tap0,iface=tap0",
        "net_null0", "0000:03:00.0", "03:00.0,arg=1"}) {
    EXPECT_THAT(port(device), ElementsAre(std::string("ok: ") + device));
  }
}

TEST_F(PortChecks, NoDriver) {
  EXPECT_THAT(port("net_memif0,role=client"),
              ElementsAre("problem: DPDK's driver net_memif is not installed "
                          "-> apt-get install -y librte-net-memif23"));
  EXPECT_THAT(port("net_nul0"),
              ElementsAre("problem: DPDK has no driver net_nul here, did you "
                          "mean \"net_null\"? -> man switch.yaml"));
  EXPECT_THAT(port("net_vhost0"),
              ElementsAre("problem: DPDK's driver net_vhost is not installed "
                          "-> apt-get install -y librte-net-vhost23"));
  fake_.remove("/usr/lib/x86_64-linux-gnu/dpdk");
  EXPECT_THAT(port("net_null0"),
              ElementsAre("problem: DPDK's drivers are not installed -> "
                          "apt-get install -y librte-net-null23"));
}

TEST_F(PortChecks, FaultsInArguments) {
  fake_.write("/usr/lib/x86_64-linux-gnu/dpdk/pmds-23.0/librte_net_pcap.so",
              "");
  EXPECT_THAT(port("net_null0,siez=64"),
              ElementsAre("problem: net_null0,siez=64: unknown argument "
                          "'siez': net_null takes size,copy,no-rx -> "
                          "man switch.yaml"));
  EXPECT_THAT(port("net_pcap0,rx_pcap=/no/such.pcap"),
              ElementsAre("problem: net_pcap0,rx_pcap=/no/such.pcap: cannot "
                          "read '/no/such.pcap': No such file or directory -> "
                          "man switch.yaml"));
  EXPECT_THAT(port("net_pcap0,rx_pcap=/dev/null"),
              ElementsAre("ok: net_pcap0,rx_pcap=/dev/null"));
}

// Others keep there what they like.
TEST_F(PortChecks, DriversAreWhereDebianPutsThem) {
  const std::string folder = "/usr/lib/x86_64-linux-gnu/dpdk/";
  for (const char* other : {"a-folder.of/notes", "zz-99.0/notes"}) {
    fake_.write(folder + other, "");
  }
  EXPECT_THAT(port("net_null0"), ElementsAre("ok: net_null0"));
  EXPECT_THAT(port("net_memif0"),
              ElementsAre("problem: DPDK's driver net_memif is not installed "
                          "-> apt-get install -y librte-net-memif23"));
}

TEST_F(PortChecks, NoPermissions) {
  fake_.write("/proc/self/status", "CapEff:\t0000000000000000\n");
  EXPECT_THAT(port(kVeth),
              ElementsAre("problem: a packet socket needs the capability "
                          "CAP_NET_RAW, or root -> sudo setcap "
                          "cap_net_admin,cap_net_raw=ep "
                          "/usr/local/bin/ofswitch"));
  EXPECT_THAT(port("net_tap0"),
              ElementsAre("problem: a tap interface needs the capability "
                          "CAP_NET_ADMIN, or root -> sudo setcap "
                          "cap_net_admin,cap_net_raw=ep "
                          "/usr/local/bin/ofswitch"));
  EXPECT_THAT(port("net_null0"), ElementsAre("ok: net_null0"));
  // A process whose program is nowhere.
  fake_.remove("/proc/self/exe");
  EXPECT_THAT(port("net_tap0"),
              ElementsAre("problem: a tap interface needs the capability "
                          "CAP_NET_ADMIN, or root -> sudo setcap "
                          "cap_net_admin,cap_net_raw=ep /usr/bin/ofswitch"));
  // CAP_NET_ADMIN, bit 12, and CAP_NET_RAW, bit 13.
  fake_.write("/proc/self/status", "CapEff:\t0000000000001000\n");
  EXPECT_THAT(port("net_tap0"), ElementsAre("ok: net_tap0"));
  EXPECT_EQ(port(kVeth).size(), 1u);
  EXPECT_NE(port(kVeth)[0], std::string("ok: ") + kVeth);
  fake_.write("/proc/self/status", "CapEff:\t0000000000002000\n");
  EXPECT_THAT(port(kVeth), ElementsAre(std::string("ok: ") + kVeth));
  EXPECT_NE(port("net_tap0")[0], "ok: net_tap0");
  fake_.write("/proc/self/status", "CapEff:\t0000000000003000\n");
  EXPECT_THAT(port("net_tap0"), ElementsAre("ok: net_tap0"));
}

TEST_F(PortChecks, NoKernelSupport) {
  fake_.remove("/dev/net/tun");
  fake_.remove("/proc/net/packet");
  EXPECT_THAT(port("net_tap0"),
              ElementsAre("problem: the kernel has no tap interfaces: "
                          "/dev/net/tun is missing -> modprobe tun"));
  EXPECT_THAT(port(kVeth), ElementsAre("problem: the kernel has no packet "
                                       "sockets -> modprobe af_packet"));
}

TEST_F(PortChecks, NoInterface) {
  EXPECT_THAT(port("net_af_packet0,iface=veth9"),
              ElementsAre("problem: there is no interface veth9, only eth0, "
                          "veth1, veth2 -> ip link add veth9 type veth peer "
                          "name veth9-peer"));
  // The kernel's names have 15 characters at most.
  EXPECT_THAT(port("net_af_packet0,iface=veth-to-router12"),
              ElementsAre("problem: there is no interface veth-to-router12, "
                          "only eth0, veth1, veth2"));
  EXPECT_THAT(port("net_af_packet0,iface=veth-to-router"),
              ElementsAre("problem: there is no interface veth-to-router, "
                          "only eth0, veth1, veth2 -> ip link add "
                          "veth-to-router type veth peer name "
                          "veth-to-ro-peer"));
}

TEST_F(PortChecks, InterfaceIsNoDevice) {
  EXPECT_THAT(port("veth1"),
              ElementsAre("problem: veth1 is an interface of the kernel's, no "
                          "device of DPDK's -> in switch.yaml: device: "
                          "\"net_af_packet1,iface=veth1\""));
}

TEST_F(PortChecks, InterfaceIsNotNamed) {
  for (const std::string device :
       {"net_af_packet0", "net_af_packet0,qpairs=2", "net_af_packet0,iface="}) {
    EXPECT_THAT(port(device),
                ElementsAre("problem: " + device +
                            " names no interface, as net_af_packet0,iface=eth1 "
                            "does -> man switch.yaml"));
  }
}

TEST_F(PortChecks, InterfaceIsDown) {
  fake_.write("/sys/class/net/veth1/flags", "0x1002\n");
  fake_.write("/sys/class/net/veth1/carrier", "0\n");
  EXPECT_THAT(port(kVeth), ElementsAre("problem: veth1 is down -> ip link set "
                                       "veth1 up"));
  fake_.write("/sys/class/net/veth1/flags", "0x1003\n");
  fake_.write("/sys/class/net/veth2/flags", "0x1002\n");
  EXPECT_THAT(port(kVeth),
              ElementsAre("problem: veth2, the other end of veth1, is down -> "
                          "ip link set veth2 up"));
}

// Neither end says whose it is: they are no cable.
TEST_F(PortChecks, InterfacesWithoutNumbers) {
  fake_.remove("/sys/class/net/veth1/iflink");
  fake_.remove("/sys/class/net/veth2/ifindex");
  fake_.write("/sys/class/net/veth2/flags", "0x1002\n");
  EXPECT_THAT(port(kVeth), ElementsAre(std::string("ok: ") + kVeth));
}

TEST_F(PortChecks, NothingIsAtTheOtherEnd) {
  fake_.write("/sys/class/net/eth0/carrier", "1\n");
  EXPECT_THAT(port("net_af_packet0,iface=eth0"),
              ElementsAre("ok: net_af_packet0,iface=eth0"));
  fake_.write("/sys/class/net/eth0/carrier", "0\n");
  EXPECT_THAT(port("net_af_packet0,iface=eth0"),
              ElementsAre("problem: eth0 has no carrier: nothing is at the "
                          "other end of the cable, or that is down"));
}

TEST_F(PortChecks, Offloads) {
  const std::string why =
      "): the kernel merges frames into ones too long to pass and leaves "
      "checksums to a card that is not there -> ";
  fake_.offloads["veth1"] = {"tx", "tso", "gso", "gro"};
  EXPECT_THAT(
      port(kVeth),
      ElementsAre("problem: veth1 has offloads on (tx, tso, gso, gro" + why +
                  "ethtool -K veth1 tx off tso off gso off gro off"));
  // A card is its own end.
  fake_.offloads["eth0"] = {"tx"};
  EXPECT_THAT(port("net_af_packet0,iface=eth0"),
              ElementsAre("problem: eth0 has offloads on (tx" + why +
                          "ethtool -K eth0 tx off"));
  // What the other end sends comes to the switch.
  fake_.offloads["veth1"] = {};
  fake_.offloads["veth2"] = {"gro", "tx", "lro"};
  EXPECT_THAT(port(kVeth), ElementsAre("problem: veth2 has offloads on (tx" +
                                       why + "ethtool -K veth2 tx off"));
  fake_.remove("/usr/sbin/ethtool");
  EXPECT_THAT(port(kVeth),
              ElementsAre("problem: veth2 has offloads on (tx" + why +
                          "apt-get install -y ethtool && ethtool -K veth2 tx "
                          "off"));
  fake_.write("/sbin/ethtool", "");
  EXPECT_THAT(port(kVeth), ElementsAre("problem: veth2 has offloads on (tx" +
                                       why + "ethtool -K veth2 tx off"));
  fake_.offloads["veth1"] = {"lro"};
  EXPECT_THAT(port(kVeth), ElementsAre("problem: veth1 has offloads on (lro" +
                                           why + "ethtool -K veth1 lro off",
                                       "problem: veth2 has offloads on (tx" +
                                           why + "ethtool -K veth2 tx off"));
  fake_.offloads["veth1"] = {};
  // The other end is in another namespace; its number here is a stranger's.
  fake_.write("/sys/class/net/veth1/iflink", "2\n");
  fake_.offloads["eth0"] = {"tx"};
  EXPECT_THAT(port(kVeth), ElementsAre(std::string("ok: ") + kVeth));
}

TEST_F(PortChecks, NoCard) {
  EXPECT_THAT(port("0000:04:00.0"),
              ElementsAre("problem: there is no PCI device 0000:04:00.0, only "
                          "0000:03:00.0 -> dpdk-devbind.py --status-dev net"));
  fake_.addCard("0000:01:00.0", "i40e");
  fake_.addCard("0000:02:00.0", "nvme");
  fake_.write("/sys/bus/pci/devices/0000:02:00.0/class", "0x010802\n");
  EXPECT_THAT(port("0000:04:00.0"),
              ElementsAre("problem: there is no PCI device 0000:04:00.0, only "
                          "0000:01:00.0, 0000:03:00.0 -> dpdk-devbind.py "
                          "--status-dev net"));
}

TEST_F(PortChecks, CardIsKnownHoweverItsAddressIsWritten) {
  fake_.addCard("0000:0a:00.0", "igb_uio");
  for (const char* address : {"A:0.0", "0a:00.0", "0000:0A:00.0,arg=1"}) {
    EXPECT_THAT(port(address), ElementsAre(std::string("ok: ") + address));
    EXPECT_EQ(otherCards(address).size(), 1) << address;
  }
}

TEST_F(PortChecks, CardHeldByTheKernel) {
  fake_.addCard("0000:04:00.0", "i40e");
  fake_.write("/sys/bus/pci/devices/0000:04:00.0/net/ens4/flags", "");
  fake_.write("/sys/module/vfio_pci/version", "");
  EXPECT_THAT(port("04:00.0"),
              ElementsAre("problem: the kernel's driver i40e holds "
                          "0000:04:00.0 as ens4 -> ip link set ens4 down && "
                          "dpdk-devbind.py --bind=vfio-pci 0000:04:00.0"));
  fake_.addCard("0000:07:00.0", "i40e");
  EXPECT_THAT(port("07:00.0"),
              ElementsAre("problem: the kernel's driver i40e holds "
                          "0000:07:00.0 -> dpdk-devbind.py --bind=vfio-pci "
                          "0000:07:00.0"));
  fake_.remove("/sys/module/vfio_pci");
  fake_.addCard("0000:05:00.0", "");
  EXPECT_THAT(port("05:00.0"),
              ElementsAre("problem: the kernel's module vfio-pci is not loaded "
                          "-> modprobe vfio-pci",
                          "problem: no driver holds 0000:05:00.0 -> "
                          "dpdk-devbind.py --bind=vfio-pci 0000:05:00.0"));
  for (const char* driver : {"mlx5_core", "igb_uio", "uio_pci_generic"}) {
    fake_.addCard("0000:06:00.0", driver);
    EXPECT_THAT(port("06:00.0"), ElementsAre("ok: 06:00.0")) << driver;
  }
}

TEST_F(PortChecks, CardWithoutIommu) {
  fake_.remove("/sys/bus/pci/devices/0000:03:00.0/iommu_group");
  const std::string unsafe =
      "/sys/module/vfio/parameters/enable_unsafe_noiommu_mode";
  EXPECT_THAT(
      port("03:00.0"),
      ElementsAre("problem: the machine has no IOMMU switched on, without "
                  "which the card may not reach memory -> sed -i "
                  "'s/^GRUB_CMDLINE_LINUX=\"/&intel_iommu=on iommu=pt /' "
                  "/etc/default/grub && update-grub && reboot; where there is "
                  "none, and at your own risk: echo 1 > " +
                  unsafe));
  fake_.write(unsafe, "Y\n");
  EXPECT_THAT(port("03:00.0"), ElementsAre("ok: 03:00.0"));
}

TEST_F(PortChecks, CardOfAnotherUser) {
  fake_.remove("/dev/vfio/12");
  EXPECT_THAT(port("03:00.0"),
              ElementsAre("problem: /dev/vfio/12 may not be used by this user "
                          "-> sudo chown $(id -un) /dev/vfio/12"));
}

TEST_F(PortChecks, LockedMemory) {
  fake_.write("/proc/self/status", "CapEff:\t0000000000000000\n");
  EXPECT_THAT(port("03:00.0"),
              ElementsAre("problem: the card reads and writes 512 MB of locked "
                          "memory, and this process may lock 8 MB -> ulimit -l "
                          "unlimited"));
  fake_.write("/proc/self/limits",
              "Max locked memory         536870912            536870912        "
              "    bytes\n");
  EXPECT_THAT(port("03:00.0"), ElementsAre("ok: 03:00.0"));
  config_.memoryMb = 513;
  EXPECT_THAT(port("03:00.0"),
              ElementsAre("problem: the card reads and writes 513 MB of locked "
                          "memory, and this process may lock 512 MB -> ulimit "
                          "-l unlimited"));
  // CAP_IPC_LOCK, bit 14.
  fake_.write("/proc/self/status", "CapEff:\t0000000000004000\n");
  EXPECT_THAT(port("03:00.0"), ElementsAre("ok: 03:00.0"));
  fake_.write("/proc/self/status", "CapEff:\t0000000000000000\n");
  fake_.write("/proc/self/limits",
              "Max locked memory         unlimited            unlimited        "
              "    bytes\n");
  EXPECT_THAT(port("03:00.0"), ElementsAre("ok: 03:00.0"));
  // Nothing says that there is a limit.
  fake_.remove("/proc/self/limits");
  EXPECT_THAT(port("03:00.0"), ElementsAre("ok: 03:00.0"));
}

TEST_F(PortChecks, CardsThatAreNoPorts) {
  EXPECT_THAT(otherCards("03:00.0"), IsEmpty());
  EXPECT_THAT(
      otherCards("net_null0"),
      ElementsAre("ok: 0000:03:00.0 (8086:1572) is held by vfio-pci and is no "
                  "port; to make it one: in switch.yaml: device: "
                  "\"0000:03:00.0\""));
  fake_.addCard("0000:03:00.0", "virtio-pci");
  fake_.write("/sys/bus/pci/devices/0000:03:00.0/virtio0/net/ens3/flags", "");
  EXPECT_THAT(
      otherCards("net_null0"),
      ElementsAre("ok: 0000:03:00.0 (8086:1572) is held by virtio-pci as ens3 "
                  "and is no port; to make it one: dpdk-devbind.py "
                  "--bind=vfio-pci 0000:03:00.0; then in switch.yaml: device: "
                  "\"0000:03:00.0\""));
  EXPECT_THAT(port("03:00.0"),
              ElementsAre("problem: the kernel's module vfio-pci is not loaded "
                          "-> modprobe vfio-pci",
                          "problem: the kernel's driver virtio-pci holds "
                          "0000:03:00.0 as ens3 -> ip link set ens3 down && "
                          "dpdk-devbind.py --bind=vfio-pci 0000:03:00.0"));
  fake_.write("/sys/bus/pci/devices/0000:03:00.0/class", "0x010802\n");
  EXPECT_THAT(otherCards("net_null0"), IsEmpty());
  fake_.addCard("0000:07:00.0", "");
  EXPECT_THAT(otherCards("net_null0"),
              ElementsAre("ok: 0000:07:00.0 (8086:1572) has no driver and is "
                          "no port; to make it one: dpdk-devbind.py "
                          "--bind=vfio-pci 0000:07:00.0; then in switch.yaml: "
                          "device: \"0000:07:00.0\""));
  // What is pulled out while one looks has no files any more.
  fake_.remove("/sys/bus/pci/devices/0000:07:00.0/class");
  EXPECT_THAT(otherCards("net_null0"), IsEmpty());
}

}  // namespace
}  // namespace ofswitch
