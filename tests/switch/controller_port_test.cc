// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/controller_port.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <rte_mbuf.h>
#include <rte_ring.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>

#include "dpdk_log.h"
#include "packet_pool.h"
#include "platform/ringlog/ringlog.h"
#include "tests/captures/capture_files.h"
#include "tests/support/time_limit.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {
namespace {

constexpr uint16_t kFrameSize = 60;

// A capture file that takes nothing until somebody reads it.
class StuckCapture {
 public:
  StuckCapture() {
    EXPECT_EQ(mkfifo(path().c_str(), 0600), 0);
    // For writing, too, so that nobody has to wait for the other end.
    fd_ = open(path().c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    EXPECT_GE(fd_, 0);
  }
  ~StuckCapture() { close(fd_); }
  StuckCapture(const StuckCapture&) = delete;
  StuckCapture& operator=(const StuckCapture&) = delete;

  std::string path() const { return dir_ / "controller.pcap"; }

  // Bytes that nobody has read.
  int waiting() const {
    int bytes = 0;
    ioctl(fd_, FIONREAD, &bytes);
    return bytes;
  }

  // Stops the capture, and answers how many bytes it wrote.
  size_t drain(ControllerPort* port) {
    size_t bytes = 0;
    const auto readAll = [&] {
      char buffer[4096];
      for (ssize_t n; (n = read(fd_, buffer, sizeof(buffer))) > 0;) {
        bytes += static_cast<size_t>(n);
      }
    };
    std::jthread reader([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        readAll();
        std::this_thread::yield();
      }
    });
    EXPECT_EQ(port->stopCapture(), "");
    reader.request_stop();
    reader.join();
    readAll();
    return bytes;
  }

 private:
  openflow_test::ScratchDir dir_;
  int fd_ = -1;
};

void give(ControllerPort* port, int wid, int batches) {
  Context ctx;
  ctx.wid = wid;
  for (int i = 0; i < batches; i++) {
    bess::PacketBatch batch;
    batch.clear();
    for (int j = 0; j < 32; j++) {
      bess::Packet* packet = bess::PacketPool::Default()->Alloc(kFrameSize);
      ASSERT_NE(packet, nullptr);
      batch.add(packet);
    }
    port->ProcessBatch(&ctx, &batch);
    ASSERT_TRUE(batch.empty());
  }
}

TEST(ControllerPort, GivesBackWhatNobodyCaptures) {
  LiveBench bench({});  // DPDK and a packet pool
  ControllerPort port;
  const size_t before = bess::PacketPool::Default()->available();
  give(&port, 0, 3);
  EXPECT_EQ(bess::PacketPool::Default()->available(), before);
  EXPECT_EQ(port.counts().packets, 3 * 32);
  EXPECT_EQ(port.counts().notCaptured, 0);
}

TEST(ControllerPort, CountsTheBytesOfAllSegments) {
  LiveBench bench({});  // DPDK and a packet pool
  ControllerPort port;
  bess::Packet* packet = bess::PacketPool::Default()->Alloc(kFrameSize);
  bess::Packet* more = bess::PacketPool::Default()->Alloc(40);
  ASSERT_EQ(rte_pktmbuf_chain(packet->mbuf(), more->mbuf()), 0);
  bess::PacketBatch batch;
  batch.clear();
  batch.add(packet);
  Context ctx;
  ctx.wid = 2;
  port.ProcessBatch(&ctx, &batch);
  EXPECT_EQ(port.counts().packets, 1);
  EXPECT_EQ(port.counts().bytes, kFrameSize + 40);
}

// The writer waits for its file: its queue of 4095 packets and the file's 64
// KiB fill up, and what comes then is missed, whichever worker brings it.
TEST(ControllerPort, CountsWhatTheCaptureMissedOfEachWorker) {
  LiveBench bench({});  // DPDK and a packet pool
  StuckCapture capture;
  ControllerPort port;
  ASSERT_EQ(port.startCapture(capture.path()), "");
  give(&port, 3, 200);
  const uint64_t missed = port.counts().notCaptured;
  EXPECT_GT(missed, 0);
  give(&port, 7, 100);
  EXPECT_GT(port.counts().notCaptured, missed);
  EXPECT_EQ(port.counts().packets, 300 * 32);
  EXPECT_EQ(port.counts().bytes, 300 * 32 * kFrameSize);

  const size_t bytes = capture.drain(&port);
  // One file header: what reads a pipe would take a second one for a packet.
  const size_t rows = (bytes - 24) / (16 + kFrameSize);
  EXPECT_EQ(bytes, 24 + rows * (16 + kFrameSize));
  EXPECT_EQ(rows, port.counts().packets - port.counts().notCaptured);
}

TEST(ControllerPort, CountsAndTellsWhatItsFileDoesNotTake) {
  LiveBench bench({});  // DPDK and a packet pool
  EXPECT_EQ(ControllerPort().startCapture("/dev/full"),
            "/dev/full: No space left on device");

  const auto before = signal(SIGPIPE, SIG_IGN);
  ControllerPort port;
  std::string path;
  {
    const StuckCapture capture;
    path = capture.path();
    ASSERT_EQ(port.startCapture(path), "");
    give(&port, 1, 1);
    while (capture.waiting() < 24 + 32 * (16 + kFrameSize)) {
      std::this_thread::yield();
    }
    EXPECT_EQ(port.counts().notWritten, 0);
  }
  const uint64_t since = Ringlog::Ring::instance().readSince(0).next;
  testing::internal::CaptureStderr();
  give(&port, 1, 2);
  give(&port, 2, 3);
  EXPECT_EQ(port.stopCapture(), path + ": Broken pipe");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ofswitch: controller.capture: " + path + ": Broken pipe\n");
  EXPECT_EQ(port.counts().packets, 6 * 32);
  EXPECT_EQ(port.counts().notCaptured, 0);
  EXPECT_EQ(port.counts().notWritten, 5 * 32);
  int told = 0;
  for (const Ringlog::Entry& entry :
       Ringlog::Ring::instance().readSince(since).entries) {
    if (entry.text == "capture: " + path + ": Broken pipe") told++;
  }
  EXPECT_EQ(told, 1);
  signal(SIGPIPE, before);
}

TEST(ControllerPort, TellsThatItHasNoQueue) {
  LiveBench bench({});  // DPDK and a packet pool
  const openflow_test::ScratchDir dir;
  const std::string path = dir / "controller.pcap";
  ControllerPort port;
  rte_ring* other =
      rte_ring_create(("capture-" + port.name()).c_str(), 64, SOCKET_ID_ANY, 0);
  ASSERT_NE(other, nullptr);
  {
    const bess::DpdkLogCapture quiet;
    EXPECT_EQ(port.startCapture(path),
              path + ": no memory for a queue of packets: File exists");
  }
  give(&port, 1, 1);
  EXPECT_EQ(port.counts().packets, 32);
  EXPECT_EQ(port.counts().notCaptured, 0);
  EXPECT_EQ(port.stopCapture(), "");
  rte_ring_free(other);
  EXPECT_EQ(port.startCapture(path), "");
  EXPECT_EQ(port.stopCapture(), "");
}

// Nobody reads what the capture writes.
TEST(ControllerPort, IsReportedWithWhatItsCaptureMissed) {
  const auto before = signal(SIGPIPE, SIG_IGN);
  auto capture = std::make_unique<StuckCapture>();
  const std::string path = capture->path();
  LiveBench bench(
      {.flows = "in_port=1,actions=controller\n", .controllerCapture = path});
  capture.reset();
  testing::internal::CaptureStderr();
  bench.receive(1, LiveBench::Bytes(60), 3);
  const auto end = std::chrono::steady_clock::now() +
                   openflow_test::timeLimit(std::chrono::seconds(10));
  while (bench->ports().ports(0).drops(1).packets() < 3 &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
  }
  const pb::Port controller = bench->ports().ports(0);
  EXPECT_EQ(controller.port(), 0u);
  EXPECT_EQ(controller.name(), "controller");
  EXPECT_TRUE(controller.link_up());
  EXPECT_EQ(controller.tx_packets(), 3u);
  ASSERT_EQ(controller.drops_size(), 2);
  EXPECT_EQ(controller.drops(0).name(), "controller_capture_full");
  EXPECT_EQ(controller.drops(0).packets(), 0u);
  EXPECT_EQ(controller.drops(1).name(), "controller_capture_failed");
  EXPECT_EQ(controller.drops(1).packets(), 3u);
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(LiveBench::drops(stats, "controller_capture_full"), 0u);
  EXPECT_EQ(LiveBench::drops(stats, "controller_capture_failed"), 3u);
  bench.stop();
  EXPECT_EQ(bench->captureError(), path + ": Broken pipe");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ofswitch: controller.capture: " + path + ": Broken pipe\n");
  signal(SIGPIPE, before);
}

}  // namespace
}  // namespace ofswitch
