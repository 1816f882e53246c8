// SPDX-License-Identifier: BSD-3-Clause
//
// Header rewrites beside code that does the same to this one kind of frame:
// UDP over untagged IPv4, everything at its known place, checksums updated from
// the differences.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "bench/bench_rig.h"
#include "bench/measure.h"
#include "bench/traffic.h"
#include "modules/openflow/datapath/rewrite.h"

namespace {

constexpr uint8_t kMac[6] = {2, 0, 0, 0, 0, 9};
constexpr uint32_t kAddress = 0x01020304;
constexpr uint16_t kPort = 0x5050;

uint16_t load(const uint8_t* at) {
  uint16_t word;
  std::memcpy(&word, at, sizeof(word));
  return word;
}

// Replaces a word. Answers its part in the checksum's difference.
uint32_t replace(uint8_t* at, uint16_t word) {
  const uint32_t difference = static_cast<uint16_t>(~load(at)) + uint32_t{word};
  std::memcpy(at, &word, sizeof(word));
  return difference;
}

void update(uint8_t* checksum, uint32_t difference) {
  uint32_t sum = static_cast<uint16_t>(~load(checksum)) + difference;
  sum = (sum & 0xffff) + (sum >> 16);
  sum = (sum & 0xffff) + (sum >> 16);
  const auto folded = static_cast<uint16_t>(~sum);
  std::memcpy(checksum, &folded, sizeof(folded));
}

uint32_t replaceAddress(uint8_t* at) {
  return replace(at, kAddress & 0xffff) + replace(at + 2, kAddress >> 16);
}

struct Rewrite {
  const char* name;
  void (*fill)(OfFlowAction* action);
  void (*bare)(uint8_t* frame);
};

const Rewrite kRewrites[] = {
    {"macs",
     [](OfFlowAction* action) {
       action->fields.setEthDst = action->fields.setEthSrc = 1;
     },
     [](uint8_t* frame) {
       std::memcpy(frame, kMac, 6);
       std::memcpy(frame + 6, kMac, 6);
     }},
    {"route",
     [](OfFlowAction* action) {
       action->fields.setEthDst = action->fields.setEthSrc = 1;
       action->fields.decTtl = 1;
     },
     [](uint8_t* frame) {
       std::memcpy(frame, kMac, 6);
       std::memcpy(frame + 6, kMac, 6);
       const uint16_t ttl = load(frame + 22);
       update(frame + 24, replace(frame + 22, static_cast<uint16_t>(ttl - 1)));
     }},
    {"nat",
     [](OfFlowAction* action) {
       action->fields.setIpv4Src = action->fields.setIpv4Dst = 1;
       action->fields.setL4SrcPort = action->fields.setL4DstPort = 1;
     },
     [](uint8_t* frame) {
       const uint32_t addresses =
           replaceAddress(frame + 26) + replaceAddress(frame + 30);
       update(frame + 24, addresses);
       update(frame + 40, addresses + replace(frame + 34, kPort) +
                              replace(frame + 36, kPort));
     }},
    {"pushVlan", [](OfFlowAction* action) { action->fields.setVlanVid = 1; },
     [](uint8_t* frame) {
       std::memmove(frame - 4, frame, 12);
       const uint8_t tag[4] = {0x81, 0, 0, 5};
       std::memcpy(frame + 8, tag, sizeof(tag));
     }},
};

void rewrite(benchmark::State& state, const Rewrite& what) {
  bench::Rig* rig = &bench::Rig::instance();
  auto traffic = bench::matchingFrames(bench::kIpv4Only, 100);
  for (bench::FrameBytes& frame : traffic) {
    frame[40] = frame[41] = 0x55;  // zero would mean none
  }
  OfFlowAction action = {};
  what.fill(&action);
  std::memcpy(action.values.ethDst, kMac, sizeof(kMac));
  std::memcpy(action.values.ethSrc, kMac, sizeof(kMac));
  action.values.ipv4Src = action.values.ipv4Dst = kAddress;
  action.values.l4SrcPort = action.values.l4DstPort = kPort;
  action.values.vlanVid = 0x0500;
  bess::PacketBatch batch;
  const auto eachPacket = [&](auto work) {
    rig->fill(traffic, &batch);
    const uint64_t taken = bench::cycles([&] {
      for (int i = 0; i < bench::kBurst; i++) work(batch.pkts()[i]);
    });
    bess::Packet::Free(&batch);
    return taken;
  };
  bench::compare(
      state, bench::kBurst, bench::kCyclesAPacket,
      [&] {
        return eachPacket(
            [&](bess::Packet* packet) { rewritePacket(packet, action); });
      },
      [&] {
        return eachPacket([&](bess::Packet* packet) {
          what.bare(packet->head_data<uint8_t*>());
        });
      });
}

void registerAll() {
  for (const Rewrite& what : kRewrites) {
    benchmark::RegisterBenchmark(
        (std::string("rewrite/") + what.name).c_str(),
        [&what](benchmark::State& state) { rewrite(state, what); })
        ->UseManualTime()
        ->MinTime(0.05);
  }
}

const bool registered = (registerAll(), true);

}  // namespace
