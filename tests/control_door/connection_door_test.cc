// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/connection_door.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"

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

TEST(ConnectionDoor, HoldsSoManyConnectionsAndNoMore) {
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "door.sock";
  const ListeningSocket socket = ListeningSocket::atPath(path);
  Connections connections;
  std::vector<ConnectionDoor::Entrance> entrances;
  entrances.push_back(
      {&socket, std::make_unique<Connections::Acceptor>(&connections)});
  ConnectionDoor door(std::move(entrances), 2);

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

}  // namespace
}  // namespace ofswitch
