// SPDX-License-Identifier: BSD-3-Clause
//
// A trace leaves the switch and its traffic alone.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <rte_malloc.h>

#include <atomic>
#include <thread>
#include <vector>

#include "packet_pool.h"
#include "platform/quil_modules/counter_db.h"
#include "tests/switch/trace/trace_bench.h"
#include "worker.h"

namespace ofswitch {
namespace {

using openflow_test::Bytes;

std::string countersOf(LiveBench* bench) {
  pb::TablesRequest all;
  all.set_all(true);
  pb::TablesReply tables = (*bench)->tables(all);
  pb::PortsReply ports = (*bench)->ports();
  pb::StatsReply stats = (*bench)->stats();
  stats.clear_time_ns();
  stats.clear_uptime_ns();
  stats.clear_workers();  // they count how often they looked for packets
  std::string text =
      tables.DebugString() + ports.DebugString() + stats.DebugString();
  for (const pb::FlowEntry& entry : bench->entries()) {
    text += fmt::format("{} {} {}\n", entry.flow(), entry.n_packets(),
                        entry.n_bytes());
  }
  return text;
}

TEST(LiveTraceBeside, MovesNoCounter) {
  LiveBench bench({.workers = 2,
                   .flows = "table=0,in_port=1,actions=output:2,goto_table:3\n"
                            "table=3,tcp,tp_dst=80,actions=dec_ttl,output:3,"
                            "output:9,controller\n"
                            "table=3,tcp,tp_dst=23,actions=drop\n"});
  bench.receive(1, tcpTo(80), 5);
  bench.receive(2, tcpTo(80), 5);
  bench.settled();
  const std::string before = countersOf(&bench);
  const uint64_t failedCopies = bess::Packet::failed_copies();
  for (int i = 0; i < 300; i++) {
    for (const uint16_t port : {80, 23, 99}) {
      traceFrame(&bench, tcpTo(port).bytes());
      traceFrame(&bench, tcpTo(port).ttl(1).bytes());
    }
    traceWords(&bench, "in_port=2,arp");
    traceWords(&bench, "table=20,in_port=2,arp");
  }
  EXPECT_EQ(countersOf(&bench), before);
  EXPECT_EQ(bess::Packet::failed_copies(), failedCopies);
  // Its number is a worker's again.
  EXPECT_FALSE(Worker::Exists(Worker::kMaxWorkers - 1));
  EXPECT_EQ(QuilModules::bessCounterDb[Worker::kMaxWorkers - 1], nullptr);
}

TEST(LiveTraceBeside, BesideTrafficAndFlowChangesNothingIsLostOrCounted) {
  LiveBench bench({.workers = 2,
                   .flows = "table=0,in_port=1,actions=goto_table:1\n"
                            "table=1,tcp,tp_dst=80,actions=output:3\n"});
  std::atomic<bool> done = false;
  std::atomic<uint64_t> sent = 0;
  std::thread traffic([&] {
    while (!done) {
      bench.receive(1, tcpTo(80), 32);
      sent += 32;
    }
  });
  std::atomic<uint64_t> traces = 0;
  std::thread tracer([&] {
    while (!done) {
      const pb::TraceReply reply = traceFrame(&bench, tcpTo(80).bytes());
      ASSERT_EQ(reply.refusal(), "");
      ASSERT_EQ(reply.steps_size(), 2);
      // All of it is of one moment: rewrites are those of the flow it names.
      const pb::TraceReply::Step& last = reply.steps(1);
      ASSERT_EQ(last.outputs_size(), 1);
      ASSERT_EQ(last.rewrites_size(), last.flow().actions_size() - 1);
      traces++;
    }
  });
  for (int round = 0; round < 100 || (traces == 0 && !HasFailure()); round++) {
    const char* rewrite = round % 2 == 0 ? "dec_ttl," : "";
    const std::string flow =
        fmt::format("table=1,tcp,tp_dst=80,actions={}output:3", rewrite);
    EXPECT_TRUE(bench.add(flow).applied());
  }
  done = true;
  traffic.join();
  tracer.join();
  const pb::StatsReply stats = bench.settled();
  EXPECT_EQ(stats.packets_received(), sent);
  EXPECT_EQ(stats.packets_forwarded(), sent);
  EXPECT_EQ(bench.entries("table=1")[0].n_packets(), sent);
  EXPECT_GT(traces, 0);
}

TEST(LiveTraceBeside, ThousandsOfThemLeaveNothingBehind) {
  LiveBench bench({.flows = "tcp,actions=output:3,output:9,controller\n"});
  const Bytes frame = tcpTo(80).bytes();
  traceFrame(&bench, frame);
  const auto heap = [] {
    rte_malloc_socket_stats stats;
    rte_malloc_get_socket_stats(0, &stats);
    return stats.heap_allocsz_bytes;
  };
  const size_t before = heap();
  const size_t buffers = bess::PacketPool::Default()->available();
  const auto native = [] { return mallinfo2().uordblks; };
  for (int i = 0; i < 100; i++) traceFrame(&bench, frame);
  const size_t nativeBefore = native();
  for (int i = 0; i < 5000; i++) traceFrame(&bench, frame);
  EXPECT_EQ(heap(), before);
  EXPECT_EQ(bess::PacketPool::Default()->available(), buffers);
  EXPECT_LE(native(), nativeBefore + 64 * 1024);
}

TEST(LiveTraceBeside, TheNextSwitchOfTheProcessIsNotDisturbed) {
  for (int i = 0; i < 2; i++) {
    LiveBench bench({.flows = "in_port=1,actions=output:3\n"});
    EXPECT_EQ(traceFrame(&bench, tcpTo(80).bytes()).outputs_size(), 1);
    bench.receive(1, tcpTo(80), 5);
    EXPECT_EQ(bench.settled().packets_sent(), 5);
    bench.stop();
    EXPECT_EQ(traceFrame(&bench, tcpTo(80).bytes()).refusal(),
              "the switch is not running");
  }
}

// A trace counts as a worker; there are so many numbers and no more.
TEST(LiveTraceBeside, NeedsTheNumberOfAWorker) {
  LiveBench bench({.flows = "in_port=1,actions=output:3\n"});
  const auto error = [&bench] {
    return traceFrame(&bench, tcpTo(80).bytes()).refusal();
  };
  EXPECT_EQ(error(), "");
  std::vector<int> taken;
  for (int wid = 0; wid < Worker::kMaxWorkers; wid++) {
    if (QuilModules::bessCounterDb.create(wid, 1)) taken.push_back(wid);
  }
  EXPECT_FALSE(taken.empty());
  EXPECT_EQ(error(),
            "the switch runs all 16 workers that there can be; tracing takes "
            "the number of one more (workers: 15)");
  for (const int wid : taken) QuilModules::bessCounterDb.destroy(wid);
  EXPECT_EQ(error(), "");
}

}  // namespace
}  // namespace ofswitch
