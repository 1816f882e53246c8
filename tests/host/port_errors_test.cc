// SPDX-License-Identifier: BSD-3-Clause
//
// What people read when a port does not open.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_ethdev.h>
#include <rte_log.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "port_harness.h"
#include "ports/internal/host_checks.h"
#include "tests/support/time_limit.h"

namespace {

int promiscuousCode = 0;

}  // namespace

// In front of DPDK's own: no device here refuses it.
extern "C" int rte_eth_promiscuous_enable(uint16_t port) {
  static const auto real =
      reinterpret_cast<decltype(&rte_eth_promiscuous_enable)>(
          dlsym(RTLD_NEXT, "rte_eth_promiscuous_enable"));
  return promiscuousCode != 0 ? promiscuousCode : real(port);
}

namespace {

constexpr char kNoCapture[] = "this is no capture, but it is long enough";

using bess::PortOptions;
using testing::HasSubstr;
using testing::StartsWith;

struct Refused {
  const char* name;
  PortOptions options;
  std::vector<const char*> texts;
};

class PortErrorsTest : public PortTest,
                       public testing::WithParamInterface<Refused> {};

TEST_P(PortErrorsTest, SaysWhatIsWrongAndWhatWouldBeRight) {
  const std::string error = bess::OpenPort("p1", GetParam().options);
  EXPECT_THAT(error, StartsWith("port 'p1', device '" +
                                GetParam().options.device + "': "));
  for (const char* text : GetParam().texts) {
    EXPECT_THAT(error, HasSubstr(text));
  }
  EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  EXPECT_EQ(bess::FindPort("p1"), nullptr);
  RecordProperty("error", error);
}

const Refused kRefused[] = {
    {"NoDevice", {.device = ""}, {"no device is named", "net_af_packet0,"}},
    {"UnknownDriver",
     {.device = "net_foo0"},
     {"no driver of that name", "0000:03:00.0", "net_tap0", "net_memif0"}},
    {"InterfaceAlone",
     {.device = "lo"},
     {"it is an interface of the kernel's: write net_af_packet0,iface=lo"}},
    {"MisspeltDriver", {.device = "net_afpacket0,iface=lo"}, {"no driver"}},
    {"LongName",
     {.device = "net_null" + std::string(56, '1')},
     {"longer than 63 characters"}},
    {"PartOfAnArgument",
     {.device = "net_null0,siz=64"},
     {"unknown argument 'siz'"}},
    {"EmptyArgument", {.device = "net_null0,"}, {"unknown argument ''"}},
    {"ArgumentWithoutValue",
     {.device = "net_null0,size"},
     {"argument 'size' has no value: write size=..."}},
    {"FramesShorterThanAHeader",
     {.device = "net_null0,size=13"},
     {"size=13", "14 to 2048 bytes"}},
    {"FramesBeyondTheBuffer",
     {.device = "net_null0,size=9000"},
     {"size=9000", "14 to 2048 bytes"}},
    {"NoSuchInterface",
     {.device = "net_af_packet0,iface=nope0"},
     {"there is no network interface 'nope0'; there are ", "lo"}},
    {"NoInterfaceNamed",
     {.device = "net_af_packet0"},
     {"no interface is named: write net_af_packet0,iface=eth1"}},
    {"NoSuchInterfaceToCaptureFrom",
     {.device = "net_pcap0,rx_iface=nope0"},
     {"there is no network interface 'nope0'"}},
    {"NoSuchCapture",
     {.device = "net_pcap0,rx_pcap=/nonexistent/in.pcap"},
     {"cannot read '/nonexistent/in.pcap': No such file or directory"}},
    {"CaptureIsADirectory",
     {.device = "net_pcap0,rx_pcap=/tmp"},
     {"cannot read '/tmp': it is a directory"}},
    {"NoFolderForCapture",
     {.device = "net_pcap0,tx_pcap=/nonexistent/out.pcap"},
     {"cannot make '/nonexistent/out.pcap': No such file or directory"}},
    {"NothingToCapture", {.device = "net_pcap0"}, {"nothing to read from"}},
    {"NoSuchPciDevice",
     {.device = "0000:fe:1f.7"},
     {"there is no PCI device at 0000:fe:1f.7", "dpdk-devbind.py --status"}},
    {"MtuTooSmall",
     {.device = "net_null0", .mtu = 67},
     {"the MTU must be at least 68"}},
    {"JumboFramesOnMemif",
     {.device = "net_memif0,role=client", .mtu = 9000},
     {"MTU 9000",
      "net_memif carries at most 1500 bytes behind the Ethernet header; ask "
      "for no more"}},
    {"FramesLongerThanACapture",
     {.device = "net_pcap0,tx_pcap=/dev/null", .mtu = 9601},
     {"MTU 9601", "at most 9600 bytes"}},
};

INSTANTIATE_TEST_SUITE_P(Devices, PortErrorsTest, testing::ValuesIn(kRefused),
                         [](const auto& row) { return row.param.name; });

class PortOpeningTest : public PortTest {};

TEST_F(PortOpeningTest, RefusesNamesThatAreTakenOrMissing) {
  ASSERT_NE(Open("a", {.device = "net_null0"}), nullptr);
  EXPECT_EQ(bess::OpenPort("a", {.device = "net_null1"}),
            "port 'a' exists already");
  EXPECT_EQ(bess::OpenPort("", {.device = "net_null1"}), "a port needs a name");
  EXPECT_EQ(bess::OpenPort("b", {.device = "net_null0,size=70"}),
            "port 'b', device 'net_null0,size=70': the device is open already");
  EXPECT_EQ(bess::ClosePort("b"), "there is no port 'b'");
  EXPECT_EQ(bess::ListPorts().size(), 1u);
}

TEST_F(PortOpeningTest, IsKeptInTheOrderOfOpening) {
  const bess::Port* b = Open("b", {.device = "net_null0"});
  const bess::Port* a = Open("a", {.device = "net_null1"});
  const bess::Port* c = Open("c", {.device = "net_null2"});
  EXPECT_EQ(bess::FindPort("a"), a);
  EXPECT_EQ(bess::ListPorts(),
            (std::vector<bess::Port*>{bess::FindPort("b"), bess::FindPort("a"),
                                      bess::FindPort("c")}));
  EXPECT_EQ(bess::ClosePort("a"), "");
  EXPECT_EQ(bess::FindPort("a"), nullptr);
  EXPECT_EQ(bess::FindPort("b"), b);
  EXPECT_EQ(bess::FindPort("c"), c);
  EXPECT_EQ(bess::ListPorts().size(), 2u);
}

TEST_F(PortOpeningTest, TakesTheSmallestMtu) {
  const bess::Port* port = Open("a", {.device = "net_null0", .mtu = 68});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->mtu(), 68);
  EXPECT_EQ(port->max_frame(), 82u);
}

TEST_F(PortOpeningTest, TellsTheArgumentsThatThereAre) {
  EXPECT_EQ(Failure({.device = "net_null0,sise=64"}),
            "port 'p', device 'net_null0,sise=64': unknown argument 'sise': "
            "net_null takes size,copy,no-rx");
}

TEST_F(PortOpeningTest, TakesTheLongestNameAndTheShortestFrames) {
  const std::string device = "net_null" + std::string(55, '1');
  EXPECT_EQ(Failure({.device = device + ",size=14"}), "");
}

TEST_F(PortOpeningTest, QuotesTheDriver) {
  const std::string path = testing::TempDir() + "no_capture";
  std::ofstream(path) << kNoCapture;
  FILE* const log = rte_log_get_stream();
  const std::string error = Failure({.device = "net_pcap0,rx_pcap=" + path});
  EXPECT_EQ(rte_log_get_stream(), log) << "what comes later is not quoted";
  remove(path.c_str());
  EXPECT_THAT(error, HasSubstr("the driver refuses it: "));
  EXPECT_THAT(error, HasSubstr("unknown file format"));
  EXPECT_EQ(Failure({.device = "net_pcap0,tx_pcap=/dev/null"}), "");
}

// A device may take its time: here for somebody to write what it is to play.
TEST_F(PortOpeningTest, HoldsUpNoGracePeriod) {
  const std::string path = testing::TempDir() + "port_errors_test.fifo";
  remove(path.c_str());
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  std::string error;
  std::thread opener(
      [&] { error = Failure({.device = "net_pcap0,rx_pcap=" + path}); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  auto elapsed = std::async(std::launch::async, [] { synchronize_rcu(); });
  EXPECT_EQ(elapsed.wait_for(openflow_test::timeLimit(std::chrono::seconds(3))),
            std::future_status::ready);
  // Opened for both, it does not wait for a reader.
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(write(fd, kNoCapture, sizeof(kNoCapture)),
            static_cast<ssize_t>(sizeof(kNoCapture)));
  opener.join();
  close(fd);
  remove(path.c_str());
  EXPECT_THAT(error, HasSubstr("unknown file format"));
}

TEST_F(PortOpeningTest, NeedsFramesForOthersWhereTheDeviceHasAChoice) {
  promiscuousCode = -EIO;
  EXPECT_EQ(Failure({.device = "net_null0"}),
            "port 'p', device 'net_null0': it does not receive what is sent to "
            "others: Input/output error");
  EXPECT_EQ(Failure({.device = "net_null0", .promiscuous = false}), "");
  EXPECT_EQ(bess::ClosePort("p"), "");
  promiscuousCode = -ENOTSUP;
  EXPECT_EQ(Failure({.device = "net_null0"}), "");
  promiscuousCode = 0;
}

TEST_F(PortOpeningTest, WorksAfterARefusal) {
  EXPECT_NE(Failure({.device = "net_null0", .mtu = 3}), "");
  EXPECT_EQ(Failure({.device = "net_null0"}), "");
  EXPECT_EQ(bess::ClosePort("p"), "");
}

TEST_F(PortOpeningTest, TellsDevicesOnPciFromOthers) {
  EXPECT_TRUE(bess::Port::IsPci("0000:03:00.0"));
  EXPECT_TRUE(bess::Port::IsPci("03:00.0"));
  EXPECT_TRUE(bess::Port::IsPci("0000:03:00.0,representor=0"));
  EXPECT_FALSE(bess::Port::IsPci("net_null0"));
  EXPECT_FALSE(bess::Port::IsPci(""));
  EXPECT_EQ(bess::Port::PciAddress("03:00.0,representor=0"), "0000:03:00.0");
  EXPECT_EQ(bess::Port::PciAddress("net_null0"), "");
}

TEST_F(PortOpeningTest, TellsDevicesThatShareMemoryFromOthers) {
  EXPECT_TRUE(bess::Port::SharesMemory("net_virtio_user0,path=/run/a.sock"));
  EXPECT_TRUE(bess::Port::SharesMemory("net_memif0,role=client,zero-copy=yes"));
  EXPECT_FALSE(bess::Port::SharesMemory("net_memif0,zero-copy=no"));
  EXPECT_FALSE(bess::Port::SharesMemory("net_memif0,role=client"));
  EXPECT_FALSE(bess::Port::SharesMemory("net_null0"));
  EXPECT_FALSE(bess::Port::SharesMemory("0000:03:00.0"));
}

// An abstract address that no test has had yet.
std::string AnyAddress() {
  static int round = 0;
  return "ports_test" + std::to_string(getpid()) + "." +
         std::to_string(round++);
}

// A socket for which `use`, bind or connect, has taken the abstract address,
// as it is or filled up to the longest.
template <typename F>
int SocketAt(const std::string& name, F use, bool filled = false) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, name.data(), name.size());
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const auto len = static_cast<socklen_t>(
      filled ? sizeof(address)
             : offsetof(sockaddr_un, sun_path) + 1 + name.size());
  EXPECT_EQ(use(fd, reinterpret_cast<sockaddr*>(&address), len), 0);
  return fd;
}

TEST_F(PortOpeningTest, RefusesASocketThatAnotherProcessHas) {
  for (const bool filled : {false, true}) {
    const std::string name = AnyAddress();
    const int fd = SocketAt(name, bind, filled);
    ASSERT_EQ(listen(fd, 1), 0);
    // Only a child holds it from here on.
    const pid_t child = fork();
    if (child == 0) {
      pause();
      _exit(0);
    }
    close(fd);
    const PortOptions options = {.device =
                                     "net_memif0,role=server,socket=" + name};
    EXPECT_THAT(Failure(options),
                HasSubstr("another process listens at socket '" + name + "'"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(Failure(options), "");
    EXPECT_EQ(bess::ClosePort("p"), "");
  }
}

// Its other end is gone, and nobody listens there.
TEST_F(PortOpeningTest, TakesASocketThroughWhichOthersOnlyTalk) {
  const std::string name = AnyAddress();
  const int listener = SocketAt(name, bind);
  ASSERT_EQ(listen(listener, 1), 0);
  const int client = SocketAt(name, connect);
  const int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ASSERT_GE(accepted, 0);
  close(listener);
  EXPECT_EQ(Failure({.device = "net_memif0,role=server,socket=" + name}), "");
  close(client);
  close(accepted);
}

// A person without the permission must learn how to get it.
TEST_F(PortOpeningTest, NamesTheMissingCapability) {
  if (geteuid() != 0) {
    EXPECT_THAT(Failure({.device = "net_af_packet0,iface=lo"}),
                HasSubstr("CAP_NET_RAW"));
    return;
  }
  EXPECT_EXIT(
      {
        if (setresuid(65534, 65534, 65534) != 0) {
          _exit(2);
        }
        fprintf(
            stderr, "%s\n",
            bess::OpenPort("p", {.device = "net_af_packet0,iface=lo"}).c_str());
        _exit(0);
      },
      testing::ExitedWithCode(0),
      "a packet socket needs the capability CAP_NET_RAW: run as root, or "
      "once: setcap cap_net_admin,cap_net_raw=ep .*host_ports_test");
}

class PortModulesTest : public PortTest {
 protected:
  template <typename Arg>
  static bess::pb::Error Make(const std::string& class_name, const Arg& arg) {
    google::protobuf::Any any;
    any.PackFrom(arg);
    return bess::CreateModule(class_name, "", any).response.error();
  }
  static bess::pb::PortInArg In(const std::string& port, uint32_t queue) {
    bess::pb::PortInArg arg;
    arg.set_port(port);
    arg.set_queue(queue);
    return arg;
  }
  static bess::pb::PortOutArg Out(const std::string& port) {
    bess::pb::PortOutArg arg;
    arg.set_port(port);
    return arg;
  }
};

TEST_F(PortModulesTest, RefusePortsAndQueuesThatAreMissing) {
  Open("p", {.device = "net_null0", .rx_queues = 2});
  for (const auto& missing :
       {Make("PortIn", In("q", 0)), Make("PortOut", Out("q"))}) {
    EXPECT_EQ(missing.code(), ENODEV);
    EXPECT_EQ(missing.errmsg(), "there is no port 'q'");
  }
  const bess::pb::Error error = Make("PortIn", In("p", 2));
  EXPECT_EQ(error.code(), EINVAL);
  EXPECT_EQ(error.errmsg(), "queue 2: port 'p' has 2 to receive from");
}

TEST_F(PortModulesTest, KeepThePortOpenOneByOne) {
  Open("p", {.device = "net_null0", .rx_queues = 2});
  EXPECT_EQ(Make("PortOut", Out("p")).code(), 0);
  EXPECT_EQ(bess::ClosePort("p"), "port 'p' is in use by modules");
  bess::DestroyAllModules();
  for (const uint32_t queue : {0, 1}) {
    EXPECT_EQ(Make("PortIn", In("p", queue)).code(), 0);
    EXPECT_EQ(bess::ClosePort("p"), "port 'p' is in use by modules");
    bess::DestroyAllModules();
  }
  EXPECT_EQ(bess::ClosePort("p"), "");
}

TEST_F(PortModulesTest, HaveQueuesToThemselves) {
  Open("p", {.device = "net_null0", .rx_queues = 2});
  EXPECT_EQ(Make("PortIn", In("p", 1)).code(), 0);
  EXPECT_EQ(Make("PortIn", In("p", 0)).code(), 0);
  EXPECT_EQ(Make("PortOut", Out("p")).code(), 0);
  const bess::pb::Error in = Make("PortIn", In("p", 1));
  EXPECT_EQ(in.code(), EBUSY);
  EXPECT_EQ(in.errmsg(), "another module receives from queue 1 of port 'p'");
  const bess::pb::Error out = Make("PortOut", Out("p"));
  EXPECT_EQ(out.code(), EBUSY);
  EXPECT_EQ(out.errmsg(), "another module sends from port 'p'");
  EXPECT_EQ(bess::ClosePort("p"), "port 'p' is in use by modules");
  bess::DestroyAllModules();
  EXPECT_EQ(Make("PortIn", In("p", 1)).code(), 0);
}

}  // namespace
