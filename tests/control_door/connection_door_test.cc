// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/connection_door.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/captures/capture_files.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/time_limit.h"

namespace {

std::atomic<bool> isOutOfDescriptors = false;
std::atomic<int> refusals = 0;

}  // namespace

// The program's own version of the system's function.
extern "C" int accept4(int fd, sockaddr* address, socklen_t* length,
                       int flags) {
  using Accept = decltype(&accept4);
  static const auto real =
      reinterpret_cast<Accept>(dlsym(RTLD_NEXT, "accept4"));
  if (!isOutOfDescriptors) return real(fd, address, length, flags);
  refusals++;
  errno = EMFILE;
  return -1;
}

namespace ofswitch {
namespace {

// In place of a server: keeps connections until it is told to close one.
class Connections {
 public:
  class Acceptor : public ConnectionDoor::Acceptor {
   public:
    explicit Acceptor(Connections* all) : all_(all) {}
    void HandleNewConnection(NewConnectionParameters* connection) override {
      const std::lock_guard lock(all_->mutex_);
      all_->fds_.push_back(connection->fd);
      all_->wake_.notify_all();
    }

   private:
    Connections* const all_;
  };

  ~Connections() {
    while (!fds_.empty()) closeOne();
  }

  bool waitFor(size_t count) {
    std::unique_lock lock(mutex_);
    return wake_.wait_for(lock,
                          openflow_test::timeLimit(std::chrono::seconds(10)),
                          [&] { return fds_.size() == count; });
  }

  // The value of an option of the first one.
  int option(int level, int name) {
    const std::lock_guard lock(mutex_);
    int value = -1;
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(fds_.front(), level, name, &value, &size), 0);
    return value;
  }

  void closeOne() {
    const std::lock_guard lock(mutex_);
    close(fds_.front());
    fds_.erase(fds_.begin());
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<int> fds_;
};

class Client {
 public:
  explicit Client(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    EXPECT_EQ(
        connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
        0);
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Whether the other side hangs up within the time.
  bool isClosed(int milliseconds) const {
    pollfd polled = {fd_, POLLIN, 0};
    char byte = 0;
    return poll(&polled, 1, milliseconds) == 1 && read(fd_, &byte, 1) == 0;
  }

 private:
  const int fd_;
};

std::vector<ConnectionDoor::Entrance> entranceTo(
    Connections* connections, const ListeningSocket* socket) {
  std::vector<ConnectionDoor::Entrance> entrances;
  entrances.push_back(
      {socket, std::make_unique<Connections::Acceptor>(connections)});
  return entrances;
}

TEST(ConnectionDoor, HoldsSoManyConnectionsAndNoMore) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "door.sock";
  const ListeningSocket socket = ListeningSocket::atPath(path);
  Connections connections;
  ConnectionDoor door(entranceTo(&connections, &socket), 2);

  const Client first(path);
  ASSERT_TRUE(connections.waitFor(1));
  const Client second(path);
  ASSERT_TRUE(connections.waitFor(2));
  EXPECT_TRUE(Client(path).isClosed(10'000));
  EXPECT_FALSE(first.isClosed(50));

  // One that has ended makes room.
  connections.closeOne();
  EXPECT_TRUE(first.isClosed(10'000));
  const Client third(path);
  ASSERT_TRUE(connections.waitFor(2));
  EXPECT_FALSE(third.isClosed(50));

  door.close();
  EXPECT_FALSE(second.isClosed(50));
  door.disconnect();
  EXPECT_TRUE(second.isClosed(10'000));
  EXPECT_TRUE(third.isClosed(10'000));
}

// Replies are short, and must not wait for what follows them.
TEST(ConnectionDoor, SendsAtOnceOverTcp) {
  const std::string any = "127.0.0.1:0";
  const ListeningSocket socket =
      ListeningSocket::atAddress(any, TcpAddress(any, "key"), "key");
  Connections connections;
  ConnectionDoor door(entranceTo(&connections, &socket), 2);
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const TcpAddress there("127.0.0.1:" + std::to_string(socket.port()), "key");
  ASSERT_EQ(connect(client, there.data(), there.size()), 0);
  ASSERT_TRUE(connections.waitFor(1));
  EXPECT_NE(connections.option(IPPROTO_TCP, TCP_NODELAY), 0);
  close(client);
  door.close();
}

TEST(ConnectionDoor, WaitsForDescriptorsWithoutHaste) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "door.sock";
  const ListeningSocket socket = ListeningSocket::atPath(path);
  Connections connections;
  isOutOfDescriptors = true;
  ConnectionDoor door(entranceTo(&connections, &socket), 2);
  const Client client(path);
  std::this_thread::sleep_for(std::chrono::milliseconds(350));
  isOutOfDescriptors = false;
  EXPECT_GE(refusals, 1);
  EXPECT_LE(refusals, 4);
  EXPECT_TRUE(connections.waitFor(1));
  door.close();
}

// The descriptors that so many connections take, as far as the system lets it.
TEST(ConnectionDoor, OpensWithRoomForDescriptors) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few = {std::min<rlim_t>(before.rlim_max, 1024), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  const ControlBench control;
  rlimit after{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &after), 0);
  EXPECT_EQ(after.rlim_cur, std::min<rlim_t>(before.rlim_max, 4096 + 256));
  EXPECT_EQ(after.rlim_max, before.rlim_max);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

}  // namespace
}  // namespace ofswitch
