// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/connection_door.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/captures/capture_files.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/next_definition.h"
#include "tests/support/time_limit.h"
#include "tests/support/unix_client.h"

namespace {

std::atomic<int> refusal = 0;  // an error number; 0: none
std::atomic<int> refusals = 0;
std::atomic<int> pauses = 0;  // of threads that were refused
thread_local bool wasRefused = false;
thread_local bool refusesEvents = false;

using openflow_test::next;

}  // namespace

// The program's own versions of the system's functions.
extern "C" {

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  static auto* const real = next<decltype(accept4)>("accept4");
  const int error = refusal;
  if (error == 0) return real(fd, address, length, flags);
  wasRefused = true;
  refusals++;
  errno = error;
  return -1;
}

// How std::this_thread sleeps, one or the other.
int nanosleep(const timespec* time, timespec* left) {
  static auto* const real = next<decltype(nanosleep)>("nanosleep");
  if (wasRefused) pauses++;
  return real(time, left);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* time,
                    timespec* left) {
  static auto* const real = next<decltype(clock_nanosleep)>("clock_nanosleep");
  if (wasRefused) pauses++;
  return real(clock, flags, time, left);
}

// Refuses those on which somebody waits; gRPC's never block.
int eventfd(unsigned int count, int flags) noexcept {
  static auto* const real = next<decltype(eventfd)>("eventfd");
  if (!refusesEvents || flags != EFD_CLOEXEC) return real(count, flags);
  errno = EMFILE;
  return -1;
}
}

namespace ofswitch {
namespace {

using openflow_test::UnixClient;

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

  // The first one's number.
  int first() {
    const std::lock_guard lock(mutex_);
    return fds_.front();
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

bool isSoon(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() +
                        openflow_test::timeLimit(std::chrono::seconds(20));
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return condition();
}

std::vector<ConnectionDoor::Entrance> entranceTo(
    Connections* connections, const ListeningSocket* socket) {
  std::vector<ConnectionDoor::Entrance> entrances;
  entrances.push_back(
      {socket, std::make_unique<Connections::Acceptor>(connections)});
  return entrances;
}

// A door for two connections at a time.
class ConnectionDoorAtPath : public testing::Test {
 protected:
  const openflow_test::ScratchDir dir_;
  const std::string path_ = dir_ / "door.sock";
  const ListeningSocket socket_ = ListeningSocket::atPath(path_);
  Connections connections_;
  ConnectionDoor door_{entranceTo(&connections_, &socket_), 2};
};

TEST_F(ConnectionDoorAtPath, HoldsSoManyConnectionsAndNoMore) {
  const UnixClient first(path_);
  ASSERT_TRUE(connections_.waitFor(1));
  const UnixClient second(path_);
  ASSERT_TRUE(connections_.waitFor(2));
  EXPECT_TRUE(UnixClient(path_).isClosed(10'000));
  EXPECT_FALSE(first.isClosed(50));

  // One that has ended makes room.
  connections_.closeOne();
  EXPECT_TRUE(first.isClosed(10'000));
  const UnixClient third(path_);
  ASSERT_TRUE(connections_.waitFor(2));
  EXPECT_FALSE(third.isClosed(50));

  door_.close();
  EXPECT_FALSE(second.isClosed(50));
  door_.disconnect();
  EXPECT_TRUE(second.isClosed(10'000));
  EXPECT_TRUE(third.isClosed(10'000));
}

// Their numbers are free when it looks for room: the next one takes others,
// which were free before.
TEST_F(ConnectionDoorAtPath, ForgetsAllThatHaveEnded) {
  const int lower[] = {open("/dev/null", O_RDONLY | O_CLOEXEC),
                       open("/dev/null", O_RDONLY | O_CLOEXEC)};
  const UnixClient first(path_);
  ASSERT_TRUE(connections_.waitFor(1));
  const UnixClient second(path_);
  ASSERT_TRUE(connections_.waitFor(2));
  for (const int fd : lower) close(fd);
  connections_.closeOne();
  connections_.closeOne();
  const UnixClient third(path_);
  ASSERT_TRUE(connections_.waitFor(1));
  const UnixClient fourth(path_);
  ASSERT_TRUE(connections_.waitFor(2));
  EXPECT_TRUE(UnixClient(path_).isClosed(10'000));
  EXPECT_FALSE(third.isClosed(50));
  EXPECT_FALSE(fourth.isClosed(50));
  door_.close();
}

TEST_F(ConnectionDoorAtPath, HasRoomForOneWhoseNumberIsAFilesByNow) {
  const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  const UnixClient first(path_);
  ASSERT_TRUE(connections_.waitFor(1));
  const UnixClient second(path_);
  ASSERT_TRUE(connections_.waitFor(2));
  const int number = connections_.first();
  connections_.closeOne();
  ASSERT_EQ(dup2(file, number), number);
  const UnixClient third(path_);
  ASSERT_TRUE(connections_.waitFor(2));
  EXPECT_FALSE(third.isClosed(50));
  EXPECT_FALSE(second.isClosed(50));
  door_.close();
  door_.disconnect();
  EXPECT_TRUE(second.isClosed(10'000));
  EXPECT_EQ(close(number), 0) << "it is none of the door's";
  close(file);
}

// While it lives, a door cannot have what it would be closed by.
class NoEvents {
 public:
  NoEvents() { refusesEvents = true; }
  ~NoEvents() { refusesEvents = false; }
  NoEvents(const NoEvents&) = delete;
  NoEvents& operator=(const NoEvents&) = delete;
};

// A server that is there already goes again.
TEST(ConnectionDoor, TellsWhatItLacksDescriptorsFor) {
  LiveBench bench({});
  const openflow_test::ScratchDir dir;
  SwitchConfig config = bench.live().config();
  config.controlSocket = dir / "control.sock";
  {
    const NoEvents none;
    try {
      const ControlServer server(ControlSockets(config), &bench.live());
      ADD_FAILURE() << "it is open";
    } catch (const std::system_error& error) {
      EXPECT_STREQ(error.what(),
                   "the control door cannot open: Too many open files");
    }
  }
  EXPECT_FALSE(std::filesystem::exists(config.controlSocket));
  ControlServer server(ControlSockets(config), &bench.live());
  EXPECT_FALSE(UnixClient(config.controlSocket).isClosed(50));
}

// How many descriptors of this process are what `fd` is.
int numbersOf(int fd) {
  const std::filesystem::path all = "/proc/self/fd";
  const auto wanted = read_symlink(all / std::to_string(fd));
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(all)) {
    std::error_code gone;
    count += read_symlink(entry.path(), gone) == wanted;
  }
  return count;
}

// gRPC waits for none of them, and no child inherits one.
TEST_F(ConnectionDoorAtPath, HandsOnWhatNeverBlocksAndIsNotInherited) {
  const UnixClient client(path_);
  ASSERT_TRUE(connections_.waitFor(1));
  EXPECT_NE(fcntl(connections_.first(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(connections_.first(), F_GETFD) & FD_CLOEXEC, 0);
  door_.close();
}

// A connection that has ended, and whose number others have by now, is none of
// its business.
TEST_F(ConnectionDoorAtPath, DisconnectsNothingButItsConnections) {
  const UnixClient gone(path_);
  ASSERT_TRUE(connections_.waitFor(1));
  const UnixClient here(path_);
  ASSERT_TRUE(connections_.waitFor(2));
  door_.close();

  const int number = connections_.first();
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  connections_.closeOne();
  ASSERT_EQ(dup2(pair[0], number), number);
  door_.disconnect();
  EXPECT_EQ(numbersOf(connections_.first()), 1) << "none is left behind";
  EXPECT_TRUE(here.isClosed(10'000));
  EXPECT_FALSE(here.say("x"));
  EXPECT_EQ(send(pair[1], "x", 1, MSG_NOSIGNAL), 1);
  char byte = 0;
  EXPECT_EQ(recv(number, &byte, 1, MSG_DONTWAIT), 1);
  for (const int fd : {pair[0], pair[1], number}) close(fd);
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

TEST_F(ConnectionDoorAtPath, WaitsForDescriptorsAndMemoryWithoutHaste) {
  using Clock = std::chrono::steady_clock;
  using std::chrono::milliseconds;
  for (const int error : {EMFILE, ENFILE, ENOMEM, ENOBUFS}) {
    const Clock::time_point asked = Clock::now();
    const Clock::time_point deadline =
        asked + openflow_test::timeLimit(std::chrono::seconds(10));
    refusals = 0;
    refusal = error;
    const UnixClient client(path_);
    while (refusals < 3 && Clock::now() < deadline) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    refusal = 0;
    const Clock::time_point start = Clock::now();
    EXPECT_GE(refusals, 3);
    EXPECT_LE(refusals, (start - asked) / milliseconds(100) + 1) << error;
    EXPECT_TRUE(connections_.waitFor(1));
    EXPECT_LT(Clock::now() - start,
              openflow_test::timeLimit(std::chrono::seconds(5)));
    connections_.closeOne();
  }
  door_.close();
}

// Such as a client that has gone again: the next one does not wait for it.
TEST_F(ConnectionDoorAtPath, DoesNotWaitAfterAnyOtherFailure) {
  refusals = 0;
  pauses = 0;
  refusal = ECONNABORTED;
  const UnixClient client(path_);
  const bool wasRefusedOften = isSoon([] { return refusals >= 10; });
  refusal = 0;
  EXPECT_TRUE(wasRefusedOften);
  EXPECT_TRUE(connections_.waitFor(1));
  EXPECT_EQ(pauses, 0);

  // As it would be if it waited.
  refusal = EMFILE;
  const UnixClient other(path_);
  const bool hasPaused = isSoon([] { return pauses > 0; });
  refusal = 0;
  EXPECT_TRUE(hasPaused);
  EXPECT_TRUE(connections_.waitFor(2));
  door_.close();
}

// A thread that looks whether somebody comes would have nothing else to do.
TEST_F(ConnectionDoorAtPath, RestsWhileNobodyComes) {
  const auto worked = [] {
    timespec time{};
    EXPECT_EQ(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time), 0);
    return std::chrono::seconds(time.tv_sec) +
           std::chrono::nanoseconds(time.tv_nsec);
  };
  const auto before = worked();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_LT(worked() - before, std::chrono::milliseconds(30));
  door_.close();
}

// The descriptors that so many connections take, as far as the system lets it.
TEST(ConnectionDoor, OpensWithRoomForDescriptors) {
  // DPDK takes all that it may when it starts, which is once a process.
  { const LiveBench first({}); }
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
