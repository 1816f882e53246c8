// SPDX-License-Identifier: BSD-3-Clause
//
// What a caller may ask of a running switch, and what it is told of time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/mio/mio.h"
#include "platform/twinlog/twinlog.h"
#include "tests/switch/live_bench.h"
#include "tests/switch/live_policy.h"
#include "tests/switch/refuse_build.h"
#include "worker.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

std::vector<pb::FlowEntry> listed(const LiveSwitch& live,
                                  const pb::FlowFilter& filter,
                                  size_t most = SIZE_MAX) {
  std::vector<pb::FlowEntry> entries;
  live.dumpFlows(filter, [&](const pb::FlowEntry& entry) {
    entries.push_back(entry);
    return entries.size() < most;
  });
  return entries;
}

TEST(LiveOptions, ListingsHaveCountsAndWhatTheSwitchAddsIfWished) {
  LiveBench bench({.flows = kPolicy});
  pb::FlowFilter filter;
  const std::vector<pb::FlowEntry> flows = listed(bench.live(), filter);
  EXPECT_THAT(flows, SizeIs(6));
  for (const pb::FlowEntry& flow : flows) {
    EXPECT_FALSE(flow.built_in());
    EXPECT_THAT(flow.text(), HasSubstr(", n_packets=0, n_bytes=0, "));
  }
  EXPECT_THAT(listed(bench.live(), filter, 2), SizeIs(2)) << "seen enough";

  filter.set_with_built_in(true);
  filter.set_no_stats(true);
  const std::vector<pb::FlowEntry> all = listed(bench.live(), filter);
  EXPECT_THAT(all, SizeIs(8)) << "and the miss flows of two tables";
  EXPECT_TRUE(all.back().built_in());
  for (const pb::FlowEntry& flow : all) {
    EXPECT_THAT(flow.text(), Not(HasSubstr("n_packets")));
  }
}

TEST(LiveOptions, CountsBeginAnewIfWished) {
  constexpr char kFlow[] = "in_port=1,actions=output:3\n";
  LiveBench bench({.flows = kFlow});
  pb::FlowChange change;
  change.set_text(kFlow);
  const auto packetsAfter = [&](pb::FlowOperation operation, bool reset) {
    bench.receive(1, tcpTo(80), 3);
    bench.settled();
    change.set_operation(operation);
    change.set_reset_counts(reset);
    EXPECT_TRUE(bench->changeFlows(change).applied());
    return bench.entries().at(0).n_packets();
  };
  EXPECT_EQ(packetsAfter(pb::FLOW_OPERATION_ADD, false), 3u);
  EXPECT_EQ(packetsAfter(pb::FLOW_OPERATION_ADD, true), 0u);
  EXPECT_EQ(packetsAfter(pb::FLOW_OPERATION_REPLACE, false), 3u);
  EXPECT_EQ(packetsAfter(pb::FLOW_OPERATION_REPLACE, true), 0u);
  EXPECT_EQ(bench->stats().flow_changes(), 4u);
}

TEST(LiveOptions, ProgressIsToldIfWished) {
  LiveBench bench({});
  pb::FlowChange change;
  change.set_operation(pb::FLOW_OPERATION_ADD);
  change.set_text("actions=drop\nipv6,actions=drop\n");
  std::vector<bool> changing;
  const auto progress = [&](const pb::FlowProgress&) {
    changing.push_back(bench->isChangingFlows());
  };
  EXPECT_TRUE(bench->changeFlows(change, progress).applied());
  EXPECT_THAT(changing, IsEmpty());
  EXPECT_FALSE(bench->isChangingFlows());
  change.set_progress(true);
  change.set_reset_counts(true);
  EXPECT_TRUE(bench->changeFlows(change, progress).applied());
  EXPECT_THAT(changing, ElementsAre(true, true)) << "one a family";
  EXPECT_FALSE(bench->isChangingFlows());
}

TEST(LiveOptions, WorkersPauseForExactCountsUnlessTheyRest) {
  LiveBench bench({.flows = "in_port=1,actions=output:3\n"});
  pb::StatsRequest pause;
  pause.set_pause(true);
  EXPECT_TRUE(bench->stats(pause).exact());
  EXPECT_TRUE(Worker::IsRunning(0)) << "they go on";
  Worker::PauseAll();
  EXPECT_FALSE(bench->stats(pause).workers(0).running());
  EXPECT_FALSE(Worker::IsRunning(0)) << "as somebody else wanted it";
  EXPECT_EQ(Worker::ResumeAll(), "");
  EXPECT_TRUE(bench->stats().workers(0).running()) << "nobody asked for it";
}

// Packets that are on their way from one table to the next are not lost.
TEST(LiveOptions, ReadingsUnderTrafficTellOfNoLoss) {
  LiveBench bench({.flows = kPolicy});
  const auto patience = std::chrono::steady_clock::now() + 60s;
  std::atomic<bool> done = false;
  std::thread traffic([&] {
    const std::vector<LiveBench::Bytes> frames(64, tcpTo(23));
    while (!done) bench.receive(1, frames);
  });
  int inexact = 0;
  // A busy machine may let the packets come late.
  for (int i = 0;
       i < 500 || (inexact == 0 && std::chrono::steady_clock::now() < patience);
       i++) {
    const pb::StatsReply stats = bench->stats();
    inexact += !stats.exact();
    EXPECT_EQ(LiveBench::drops(stats, "no_buffer_for_table"), 0u) << i;
    EXPECT_EQ(LiveBench::drops(stats, "no_such_port"), 0u) << i;
    EXPECT_TRUE(stats.closes()) << i;
  }
  done = true;
  traffic.join();
  EXPECT_GT(inexact, 0) << "while packets came";
}

TEST(LiveOptions, TellsItsTime) {
  const auto nsNow = [](auto clock) {
    return static_cast<uint64_t>(
        std::chrono::nanoseconds(decltype(clock)::now().time_since_epoch())
            .count());
  };
  const uint64_t before = nsNow(std::chrono::steady_clock());
  LiveBench bench({});
  std::this_thread::sleep_for(20ms);
  const uint64_t early = nsNow(std::chrono::system_clock());
  const pb::StatsReply stats = bench->stats();
  EXPECT_GE(stats.time_ns(), early);
  EXPECT_LE(stats.time_ns(), nsNow(std::chrono::system_clock()));
  EXPECT_GE(stats.uptime_ns(), 20'000'000u);
  EXPECT_LE(stats.uptime_ns(), nsNow(std::chrono::steady_clock()) - before);

  const uint64_t begin = nsNow(std::chrono::steady_clock());
  const pb::FlowChangeReply reply = bench.add("actions=drop");
  EXPECT_GE(reply.total_time_ns(), reply.build_time_ns());
  EXPECT_GT(reply.build_time_ns(), 0u);
  EXPECT_LE(reply.total_time_ns(), nsNow(std::chrono::steady_clock()) - begin);
}

// Each build that fails keeps memory.
TEST(LiveOptions, ExpiriesThatFailAreTriedMoreAndMoreSeldom) {
  LiveBench bench({.flows = "hard_timeout=10,in_port=1,actions=drop\n"
                            "in_port=2,actions=drop\n"});
  const auto failedBuilds = [&] {
    return bench->tables({}).tables(0).ipv4().failed_builds();
  };
  bench.pass(10s);
  {
    const RefuseBuild refuse(0, 1000);
    for (int second = 0; second < 200; second++) {
      bench.pass(1s);
      bench->expireFlows();
    }
    // At 1, 2, 3, 5, 9, 17, 33, 65, 125 and 185 s the expiry and what undoes
    // it; behind each, in growing steps of its own, what could not be undone.
    EXPECT_GE(failedBuilds(), 20u);
    EXPECT_LE(failedBuilds(), 60u);
    EXPECT_THAT(bench.entries(), SizeIs(2));
  }
  // A change that succeeds ends the wait.
  EXPECT_TRUE(bench.add("in_port=3,actions=drop").applied());
  bench->expireFlows();
  EXPECT_THAT(bench.entries(), SizeIs(2));
  EXPECT_EQ(bench->stats().expired_hard(), 1u);
}

// The build that would take the flow away is refused, and the next one is not.
TEST(LiveOptions, FlowsExpireOnce) {
  LiveBench bench({.flows = "hard_timeout=10,in_port=1,actions=drop\n"
                            "idle_timeout=10,in_port=2,actions=drop\n"});
  bench.pass(11s);
  const RefuseBuild refuse(0);
  bench->expireFlows();
  bench->expireFlows();
  EXPECT_THAT(bench.entries(), IsEmpty());
  EXPECT_EQ(bench->stats().expired_hard(), 1u);
  EXPECT_EQ(bench->stats().expired_idle(), 1u);
  EXPECT_TRUE(bench.add("idle_timeout=10,in_port=2,actions=drop").applied());
  bench.pass(11s);
  bench->expireFlows();
  EXPECT_EQ(bench->stats().expired_idle(), 2u);
  EXPECT_EQ(bench->stats().expired_hard(), 1u);
}

TEST(LiveOptions, NoFlowExpiresOnceTheSwitchHasStopped) {
  LiveBench bench({.flows = "hard_timeout=60,in_port=1,actions=output:3\n"});
  bench.stop();
  bench.pass(61s);
  bench->expireFlows();
  const pb::StatsReply stats = bench->stop();
  EXPECT_EQ(stats.flows(), 1);
  EXPECT_EQ(stats.expired_hard(), 0);
}

TEST(LiveOptions, ReadingsHoldAllOfIt) {
  LiveBench bench({.flows = kPolicy});
  bench.receive(1, tcpTo(81), 2);
  bench.settled();
  const auto reading = bench->read(3);
  ASSERT_TRUE(reading.has_value());
  EXPECT_EQ(reading->stats.packets_received(), 2u);
  EXPECT_EQ(reading->stats.flows(), 6u);
  EXPECT_EQ(reading->tables.tables_size(), 32);
  EXPECT_EQ(reading->tables.tables(4).matched(), 2u);
  EXPECT_EQ(reading->ports.ports_size(), 4);
  ASSERT_THAT(reading->flows, SizeIs(3));
  EXPECT_EQ(reading->flows[0].packets, 2u);
  EXPECT_EQ(reading->flows[0].bytes, 2 * tcpTo(81).bytes().size());
  const auto all = bench->read(100);
  ASSERT_THAT(all->flows, SizeIs(6)) << "the switch's own are not among them";
  bench.stop();
  EXPECT_FALSE(bench->read(3).has_value());
  EXPECT_EQ(bench->tables({}).tables_size(), 0);
  EXPECT_EQ(bench->ports().ports_size(), 0);
  EXPECT_EQ(bench->stats().packets_received(), 0u);
  EXPECT_EQ(bench->trace({}).refusal().empty(), false);
}

TEST(LiveOptions, LogEntriesTellWhereTheyComeFrom) {
  static const Mio::TraceHandle trace("LiveOptionsTest", 0);
  LiveBench bench({});
  pb::LogRequest request;
  request.set_facility("LiveOptionsTest");
  request.set_max_level(4);
  request.set_since(bench->readLog(request).next);
  const auto before = std::chrono::system_clock::now();
  for (int i = 0; i < 3; i++) TWINLOG_TRACE(trace, 4, "line %s", i);
  const LiveSwitch::LogReading log = bench->readLog(request);
  ASSERT_THAT(log.entries, SizeIs(3));
  const pb::LogEntry& entry = log.entries[0];
  EXPECT_EQ(entry.text(), "line 0");
  EXPECT_EQ(entry.facility(), "LiveOptionsTest");
  EXPECT_EQ(entry.level(), 4u);
  EXPECT_GE(entry.position(), request.since());
  EXPECT_LT(entry.position(), log.entries[1].position());
  EXPECT_EQ(log.next, log.entries[2].position() + 1);
  EXPECT_EQ(entry.thread(), static_cast<uint32_t>(gettid()));
  EXPECT_THAT(entry.function(), HasSubstr("TestBody"));
  const auto nsOf = [](auto time) {
    return static_cast<uint64_t>(
        std::chrono::nanoseconds(time.time_since_epoch()).count());
  };
  EXPECT_GE(entry.time_ns(), nsOf(before));
  EXPECT_LE(entry.time_ns(), nsOf(std::chrono::system_clock::now()));

  EXPECT_THAT(bench->readLog(request, 1).entries, SizeIs(1));
  request.set_last(2);
  ASSERT_THAT(bench->readLog(request).entries, SizeIs(2));
  EXPECT_EQ(bench->readLog(request).entries[0].text(), "line 1");
  request.clear_last();
  request.set_max_level(3);
  EXPECT_THAT(bench->readLog(request).entries, IsEmpty());
  request.set_max_level(4);
  request.set_facility("Live");
  EXPECT_THAT(bench->readLog(request).entries, IsEmpty());
  request.clear_facility();
  EXPECT_GE(bench->readLog(request).entries.size(), 3u);
}

// All of them or none.
TEST(LiveOptions, LogLevelsAreSetTogether) {
  LiveBench bench({});
  const uint32_t before = Mio::traceLevels("Controller");
  pb::LogLevels levels;
  (*levels.mutable_levels())["Controller"] = 9;
  const pb::LogLevels now = bench->setLogLevels(levels);
  EXPECT_EQ(Mio::traceLevels("Controller"), 9u);
  EXPECT_EQ(now.levels().at("Controller"), 9u);
  EXPECT_EQ(now.levels().at("OpenFlow"), Mio::traceLevels("OpenFlow"));
  EXPECT_EQ(now.levels().size(), 3u);
  (*levels.mutable_levels())["Controller"] = 5;
  (*levels.mutable_levels())["Other"] = 5;
  EXPECT_THROW(bench->setLogLevels(levels), BadRequest);
  EXPECT_EQ(Mio::traceLevels("Controller"), 9u);
  Mio::setTraceLevels("Controller", before);
}

}  // namespace
}  // namespace ofswitch
