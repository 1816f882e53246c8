// SPDX-License-Identifier: BSD-3-Clause
//
// Ports that are joined by shared memory, and the sockets by which they meet.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "port_harness.h"
#include "ports/port.h"

namespace {

using bess::DropCause;
using bess::Port;
using bess::PortOptions;
using testing::HasSubstr;

class MemifPortTest : public PortTest {
 protected:
  // Waits until both ends have found each other.
  static bool Connected(const Port* port) {
    for (int i = 0; i < 1000 && !port->link_up(); i++) {
      usleep(10000);
    }
    return port->link_up();
  }

  // Leaves the file of a socket, with nobody at it. Answers whether it could.
  static bool LeaveSocket(const std::string& path) {
    remove(path.c_str());
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof(address.sun_path));
    memcpy(address.sun_path, path.data(),
           std::min(path.size(), sizeof(address.sun_path) - 1));
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const bool bound =
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return bound;
  }
};

TEST_F(MemifPortTest, JoinsTwoPortsAsOftenAsTheyAreOpened) {
  const std::string path = testing::TempDir() + "ports_test.sock";
  const std::string socket = ",socket-abstract=no,socket=" + path;
  for (int round = 0; round < 2; round++) {
    Port* server =
        Open("server", {.device = "net_memif0,role=server" + socket});
    ASSERT_NE(server, nullptr);
    const Sender early = Send(server);
    Push(early, MakeFrame(60));
    EXPECT_EQ(server->stats().drop(DropCause::kTxPortDown), 1u)
        << "there is nobody at the other end yet";
    Port* client =
        Open("client", {.device = "net_memif1,role=client" + socket});
    ASSERT_NE(client, nullptr);
    ASSERT_TRUE(Connected(server));
    ASSERT_TRUE(Connected(client));
    Push(Send(client), MakeFrame(1514, 1));
    const auto at_server = Pull(Receive(server));
    ASSERT_EQ(at_server.size(), 1u);
    EXPECT_EQ(at_server[0].bytes, MakeFrame(1514, 1));
    // A client that has never asked for packets has no room for any.
    const Receiver at_end = Receive(client);
    EXPECT_EQ(Pull(at_end).size(), 0u);
    Push(early, MakeFrame(60, 2));
    const auto at_client = Pull(at_end);
    ASSERT_EQ(at_client.size(), 1u);
    EXPECT_EQ(at_client[0].bytes, MakeFrame(60, 2));
    ExpectClosed(server);
    ExpectClosed(client);
    bess::DestroyAllModules();
    ASSERT_EQ(bess::ClosePort("client"), "");
    ASSERT_EQ(bess::ClosePort("server"), "");
    EXPECT_NE(access(path.c_str(), F_OK), 0) << path << " was left over";
  }
}

TEST_F(MemifPortTest, ReplacesTheSocketOfADeadProcess) {
  const std::string path = testing::TempDir() + "ports_test_dead.sock";
  for (const char* role : {"server", "master"}) {
    ASSERT_TRUE(LeaveSocket(path));
    EXPECT_EQ(Failure({.device = "net_memif0,socket-abstract=no,socket=" +
                                 path + ",role=" + role}),
              "");
    EXPECT_EQ(bess::ClosePort("p"), "");
  }
}

// An abstract address is no file, whatever it is called.
TEST_F(MemifPortTest, LeavesFilesAloneWhoseNameAnAbstractSocketHas) {
  static int round = 0;
  const std::string path = testing::TempDir() + "ports_test_file" +
                           std::to_string(getpid()) + "." +
                           std::to_string(round++);
  ASSERT_TRUE(LeaveSocket(path));
  EXPECT_EQ(Failure({.device = "net_memif0,role=server,socket=" + path}), "");
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(bess::ClosePort("p"), "");
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  remove(path.c_str());
  const std::string other = path + "2";
  ASSERT_TRUE(LeaveSocket(other));
  EXPECT_EQ(
      Failure({.device = "net_memif0,role=server,socket-abstract=yes,socket=" +
                         other}),
      "");
  EXPECT_EQ(access(other.c_str(), F_OK), 0);
  remove(other.c_str());
}

// It is watched as long as any port is open.
TEST_F(MemifPortTest, SeesItsLinkGoWhenTheOtherEndIsClosed) {
  const std::string socket =
      ",socket-abstract=no,socket=" + testing::TempDir() +
      "ports_test_watched.sock";
  Port* server = Open("server", {.device = "net_memif0,role=server" + socket});
  ASSERT_NE(server, nullptr);
  ASSERT_NE(Open("client", {.device = "net_memif1,role=client" + socket}),
            nullptr);
  ASSERT_TRUE(Connected(server));
  ASSERT_EQ(bess::ClosePort("client"), "");
  for (int i = 0; i < 1000 && server->link_up(); i++) {
    usleep(10000);
  }
  EXPECT_FALSE(server->link_up());
}

// Devices of one process may share a socket.
TEST_F(MemifPortTest, LeavesTheSocketToThoseThatStillListen) {
  const std::string path = testing::TempDir() + "ports_test_shared.sock";
  const std::string args = ",role=server,socket-abstract=no,socket=" + path;
  ASSERT_NE(Open("a", {.device = "net_memif0,id=0" + args}), nullptr);
  ASSERT_NE(Open("b", {.device = "net_memif1,id=1" + args}), nullptr);
  ASSERT_EQ(bess::ClosePort("a"), "");
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  ASSERT_NE(Open("c", {.device = "net_memif2,id=2" + args}), nullptr);
  ASSERT_EQ(bess::ClosePort("b"), "");
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  ASSERT_EQ(bess::ClosePort("c"), "");
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(MemifPortTest, SeveralMayListenAtAnAbstractSocket) {
  const std::string args =
      ",role=server,socket=ports_test_together" + std::to_string(getpid());
  EXPECT_NE(Open("a", {.device = "net_memif0,id=0" + args}), nullptr);
  EXPECT_NE(Open("b", {.device = "net_memif1,id=1" + args}), nullptr);
}

// The driver does not close it; opening the device again would spoil its name.
TEST_F(MemifPortTest, TellsWhenAnAbstractSocketCannotBeUsedAgain) {
  static int round = 0;
  const PortOptions options = {
      .device = "net_memif0,role=server,socket=ports_test_once" +
                std::to_string(getpid()) + "." + std::to_string(round++)};
  EXPECT_EQ(Failure(options), "");
  EXPECT_EQ(bess::ClosePort("p"), "");
  EXPECT_THAT(Failure(options),
              HasSubstr("use a file with socket-abstract=no"));
}

}  // namespace
