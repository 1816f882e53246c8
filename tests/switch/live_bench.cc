// SPDX-License-Identifier: BSD-3-Clause
// The variant of DPDK's ring that states its memory order in atomics, which
// ThreadSanitizer understands.
#define RTE_USE_C11_MEM_MODEL

#include "tests/switch/live_bench.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <rte_ring.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include "packet_pool.h"
#include "tests/support/time_limit.h"
#include "worker.h"

namespace ofswitch {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = openflow_test::timeLimit(10s);

rte_ring* ringOf(uint16_t port) {
  const std::string name = fmt::format("ETH_RXTX0_net_ring{}", port);
  rte_ring* ring = rte_ring_lookup(name.c_str());
  if (ring == nullptr) throw std::runtime_error("no ring " + name);
  return ring;
}

// For what must happen soon.
class Patience {
 public:
  void wait() const {
    if (std::chrono::steady_clock::now() > deadline_) {
      throw std::runtime_error("the port does not receive");
    }
    std::this_thread::sleep_for(50us);
  }

 private:
  const std::chrono::steady_clock::time_point deadline_ =
      std::chrono::steady_clock::now() + kPatience;
};

}  // namespace

LiveBench::LiveBench(const Options& options)
    : offset_(std::make_shared<Offset>(0)) {
  openflow_test::writeFile(dir_ / "flows.txt", options.flows);
  SwitchConfig config;
  config.ports = {
      {1, "port1", "net_ring1", 1, 0},
      {2, "port2", "net_ring2", 1, 0},
      {3, "port3", "net_pcap3,tx_pcap=" + (dir_ / "port3.pcap").string(),
       options.queues, 0}};
  config.workers.assign(static_cast<size_t>(options.workers), -1);
  config.memoryMb = 256;
  config.flowFiles = {{dir_ / "flows.txt"}};
  config.counters = options.counters;
  config.packetBuffers = options.buffers;
  config.module.path = MODULE;
  config.dpdkTelemetry = options.dpdkTelemetry;
  config.buildMb = options.buildMb;
  if (!options.controllerCapture.empty()) {
    config.controllerCapture.path = dir_ / options.controllerCapture;
  }
  switch_ = std::make_unique<LiveSwitch>(config, [offset = offset_] {
    return LiveSwitch::Clock::now() + std::chrono::milliseconds(*offset);
  });
  switch_->start();
  // The rings' devices hold none.
  buffers_ = bess::PacketPool::Default()->capacity();
}

LiveBench::~LiveBench() {
  stop();
  EXPECT_EQ(bess::PacketPool::Default()->available(), buffers_);
}

void LiveBench::stop() { switch_->stop(); }

void LiveBench::receive(uint16_t port, const std::vector<Bytes>& frames) {
  enqueue(port, frames);
  waitUntilTaken(port);
}

void LiveBench::receiveAtOnce(uint16_t port, const std::vector<Bytes>& frames) {
  Worker::PauseAll();
  enqueue(port, frames);
  EXPECT_EQ(Worker::ResumeAll(), "");
  waitUntilTaken(port);
}

void LiveBench::enqueue(uint16_t port, const std::vector<Bytes>& frames) {
  const Patience patience;
  for (const Bytes& frame : frames) {
    bess::Packet* pkt = nullptr;
    while ((pkt = bess::PacketPool::Default()->Alloc(
                static_cast<uint16_t>(frame.size()))) == nullptr) {
      patience.wait();
    }
    std::memcpy(pkt->head_data<void*>(), frame.data(), frame.size());
    while (rte_ring_enqueue(ringOf(port), pkt) != 0) patience.wait();
  }
}

void LiveBench::waitUntilTaken(uint16_t port) {
  const Patience patience;
  while (rte_ring_count(ringOf(port)) > 0) patience.wait();
}

pb::StatsReply LiveBench::settled() {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  pb::StatsReply stats;
  do {
    std::this_thread::sleep_for(1ms);
    stats = switch_->stats();
  } while (!stats.exact() && std::chrono::steady_clock::now() < deadline);
  EXPECT_TRUE(stats.exact());
  EXPECT_TRUE(stats.closes());
  for (const std::string& sentence : stats.discrepancies()) {
    ADD_FAILURE() << sentence;
  }
  EXPECT_EQ(stats.packets_in_flight(), 0);
  return stats;
}

uint64_t LiveBench::drops(const pb::StatsReply& stats,
                          const std::string& name) {
  uint64_t packets = 0;
  for (const pb::DropCause& cause : stats.drops()) {
    if (cause.name() == name) packets += cause.packets();
  }
  return packets;
}

pb::FlowChangeReply LiveBench::change(pb::FlowOperation operation,
                                      const std::string& text, bool strict) {
  pb::FlowChange change;
  change.set_operation(operation);
  change.set_text(text);
  change.set_strict(strict);
  return switch_->changeFlows(change);
}

std::vector<pb::FlowEntry> LiveBench::entries(const std::string& filter) {
  pb::FlowFilter message;
  message.set_text(filter);
  std::vector<pb::FlowEntry> entries;
  switch_->dumpFlows(message, [&](const pb::FlowEntry& entry) {
    entries.push_back(entry);
    return true;
  });
  return entries;
}

std::vector<std::string> LiveBench::dump(const std::string& filter) {
  std::vector<std::string> lines;
  for (const pb::FlowEntry& entry : entries(filter)) {
    lines.push_back(entry.text());
  }
  return lines;
}

std::vector<openflow_test::Bytes> LiveBench::sentOnPort3() {
  stop();
  // The device writes microseconds.
  const std::string file = openflow_test::readFile(dir_ / "port3.pcap");
  std::vector<Bytes> frames;
  for (size_t at = 24; at + 16 <= file.size();) {
    uint32_t length = 0;
    std::memcpy(&length, file.data() + at + 8, sizeof(length));
    at += 16;
    frames.emplace_back(file.begin() + static_cast<long>(at),
                        file.begin() + static_cast<long>(at + length));
    at += length;
  }
  return frames;
}

}  // namespace ofswitch
