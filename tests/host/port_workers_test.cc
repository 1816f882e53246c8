// SPDX-License-Identifier: BSD-3-Clause
//
// Ports run by worker threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "port_harness.h"

namespace {

using bess::DropCause;
using bess::Port;
using bess::PortStats;

class PortWorkersTest : public PortTest {
 protected:
  ~PortWorkersTest() override { Worker::StopAll(); }

  // A source that worker `wid` runs, in front of `out`.
  static Source* Feed(const PortOut* out, int wid) {
    auto* source = static_cast<Source*>(bess::CreateModule("Source").module);
    EXPECT_EQ(
        bess::ConnectModules(source->name(), 0, out->name(), 0).error().code(),
        0);
    EXPECT_EQ(Worker::Add(wid), "");
    EXPECT_EQ(Worker::AttachTasks(source, wid), "");
    return source;
  }

  // Waits until `done`, for ten seconds at most.
  template <typename F>
  static bool Eventually(F done) {
    for (int i = 0; i < 10000 && !done(); i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
  }
};

TEST_F(PortWorkersTest, EachHasAQueueWhereThereAreEnough) {
  Port* port = Open("loop", {.device = "net_ring0", .tx_queues = 3});
  ASSERT_EQ(port->tx_queues(), 3);
  const Sender sender = Send(port);
  bess::DestroyModule(sender.source->name());
  // Their indexes need not be those of the queues.
  Source* sources[] = {Feed(sender.out, 2), Feed(sender.out, 5),
                       Feed(sender.out, 15)};
  std::vector<Receiver> receivers;
  for (uint16_t queue = 0; queue < 3; queue++) {
    receivers.push_back(Receive(port, queue));
  }
  for (int i = 0; i < 3; i++) {
    for (int n = 0; n < 100 * (i + 1); n++) {
      ASSERT_TRUE(sources[i]->Push(MakePacket(MakeFrame(60))));
    }
  }
  ASSERT_EQ(Worker::ResumeAll(), "");
  ASSERT_TRUE(Eventually([&] { return port->stats().tx_packets == 600; }));
  Worker::PauseAll();
  EXPECT_EQ(Pull(receivers[0]).size(), 100u);
  EXPECT_EQ(Pull(receivers[1]).size(), 200u);
  EXPECT_EQ(Pull(receivers[2]).size(), 300u);
  ExpectClosed(port);
}

// Before any has run, and one of which nobody knows: by its index.
TEST_F(PortWorkersTest, OneThatComesUnknownTakesTheQueueOfItsIndex) {
  Port* port = Open("loop", {.device = "net_ring0", .tx_queues = 3});
  const Sender sender = Send(port);
  for (const int wid : {1, 2, 5}) {
    bess::InlineWorker worker(wid);
    for (int i = 0; i < wid; i++) {
      ASSERT_TRUE(sender.source->Push(MakePacket(MakeFrame(60))));
    }
    worker.Run(sender.task());
  }
  const size_t expected[] = {0, 1, 7};
  for (uint16_t queue = 0; queue < 3; queue++) {
    EXPECT_EQ(Pull(Receive(port, queue)).size(), expected[queue]) << queue;
  }
}

// Which nobody else writes.
TEST_F(PortWorkersTest, CountInCountersOfTheirOwn) {
  Port* port = Open("loop", {.device = "net_ring0"});
  const Sender sender = Send(port);
  const Receiver receiver = Receive(port);
  for (const int wid : {3, 15}) {
    bess::InlineWorker worker(wid);
    for (int i = 0; i < wid; i++) {
      ASSERT_TRUE(sender.source->Push(MakePacket(MakeFrame(60))));
    }
    worker.Run(sender.task());
    worker.Run(receiver.task());
    const bess::PortCounters* own = port->counters(wid);
    const auto packets = static_cast<uint64_t>(wid);
    EXPECT_EQ(own->tx_entered, packets);
    EXPECT_EQ(own->tx_packets, packets);
    EXPECT_EQ(own->tx_bytes, packets * 60);
    EXPECT_EQ(own->rx_packets, packets);
    EXPECT_EQ(own->rx_bytes, packets * 60);
  }
  EXPECT_EQ(port->counters(0)->tx_entered, 0u);
  EXPECT_EQ(port->stats().rx_packets, 18u);
}

TEST_F(PortWorkersTest, TellWhatTheyServeAndHowManyMayRunThem) {
  Port* port = Open("loop", {.device = "net_ring0", .rx_queues = 2});
  const PortIn* in = Receive(port, 1).in;
  EXPECT_EQ(in->GetDesc(), "loop, queue 1");
  EXPECT_EQ(in->max_allowed_workers(), 1);
  const PortOut* out = Send(port).out;
  EXPECT_EQ(out->GetDesc(), "loop");
  EXPECT_EQ(out->max_allowed_workers(), Worker::kMaxWorkers);
}

TEST_F(PortWorkersTest, HearOnlyOfTheirResumption) {
  const Sender sender = Send(Open("null", {.device = "net_null0"}));
  EXPECT_EQ(sender.out->OnEvent(bess::Event::PreResume), 0);
  EXPECT_EQ(sender.out->OnEvent(static_cast<bess::Event>(1)), -ENOTSUP);
}

TEST_F(PortWorkersTest, TakeTurnsWhereThereAreFewerQueues) {
  // Writers that do not take turns tear each other's records apart.
  const std::string path = testing::TempDir() + "port_workers_test.pcap";
  Port* file =
      Open("file", {.device = "net_pcap0,tx_pcap=" + path, .tx_queues = 2});
  ASSERT_EQ(file->tx_queues(), 1);
  const Sender sender = Send(file);
  bess::DestroyModule(sender.source->name());
  Port* null = Open("null", {.device = "net_null0,size=60", .rx_queues = 2});
  for (uint16_t wid = 0; wid < 2; wid++) {
    const Receiver generator = Receive(null, wid);
    bess::DestroyModule(generator.sink->name());
    bess::ConnectModules(generator.in->name(), 0, sender.out->name(), 0);
    ASSERT_EQ(Worker::Add(wid), "");
    ASSERT_EQ(Worker::AttachTasks(generator.in, wid), "");
  }
  ASSERT_EQ(Worker::ResumeAll(), "");
  ASSERT_TRUE(Eventually([&] { return file->stats().tx_packets > 200000; }));
  Worker::PauseAll();

  const PortStats sent = file->stats();
  EXPECT_EQ(sent.tx_entered, null->stats().rx_packets);
  EXPECT_EQ(sent.tx_packets, sent.tx_entered);
  ExpectClosed(file);
  bess::DestroyAllModules();
  ASSERT_EQ(bess::ClosePort("file"), "");

  Port* back = Open("back", {.device = "net_pcap1,rx_pcap=" + path});
  const Receiver reader = Receive(back);
  bess::DestroyModule(reader.sink->name());
  bess::InlineWorker inline_worker(3);
  while (!inline_worker.Run(reader.task()).block) {
  }
  EXPECT_EQ(back->stats().rx_packets, sent.tx_packets);
  EXPECT_EQ(back->stats().rx_bytes, sent.tx_packets * 60);
  remove(path.c_str());
}

}  // namespace
