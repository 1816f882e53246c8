// SPDX-License-Identifier: BSD-3-Clause
//
// Batches of frames of any length and content, anywhere in their buffers,
// through 32 tables of fixed random flows: keys, rewrites, outputs, go-to
// chains. Bytes, metadata, counters and drops must be those of the twin.
//
// Input, for each packet: start table (bit 7: valid), flags, in-port (2 bytes),
// metadata (2), headroom (2), filler (1), length (2), bytes; with flag 2 the
// length of the first of two segments (2).
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "tests/support/module_harness.h"
#include "tests/support/random_traffic.h"
#include "tests/support/reference.h"

namespace openflow_test {
namespace {

using openflow_fuzz::Input;

constexpr uint64_t kSeed = 1;
constexpr uint32_t kFlowsPerFamily = 12;

// Module and twin with the same flows.
class Bench {
 public:
  Bench() {
    Random random(kSeed);
    for (uint32_t table = 0; table < kFlowTables; table++) {
      for (const Family family : {Family::kIpv4, Family::kIpv6}) {
        RandomFlowOptions options;
        options.tableId = table;
        options.family = family;
        const auto update = randomUpdate(&random, kFlowsPerFamily, options);
        harness_.updateFlows(update);
        twin_.updateFlows(update);
      }
    }
  }

  void compare(const std::vector<InputPacket>& packets) {
    const RunResult module = harness_.run(packets);
    const RunResult expected = twin_.run(packets);
    if (module.leakedPackets != 0) {
      openflow_fuzz::fail("{} packets leaked", module.leakedPackets);
    }
    if (twin_.readGarbage()) {
      // What stands behind a short copy's data is whatever was there before, so
      // a packet with such a copy is left out.
      if (packets.size() == 1) return;
      for (const InputPacket& packet : packets) compare({packet});
      return;
    }
    if (module == expected) return;
    std::ostringstream text;
    for (const InputPacket& packet : packets) text << packet;
    text << "module\n" << module << "twin\n" << expected;
    openflow_fuzz::fail("{}", text.str());
  }

 private:
  ModuleHarness harness_;
  ReferenceModule twin_;
};

InputPacket takePacket(Input* input) {
  InputPacket packet;
  const auto table = input->take<uint8_t>();
  const auto flags = input->take<uint8_t>();
  if (table & 0x80) packet.meta.withStartTable(table & 0x3f);
  const auto inPort = input->take<uint16_t>();
  if (flags & 1) packet.meta.withInPort(inPort);
  const auto metadata = input->take<uint16_t>();
  if (flags & 2) packet.meta.withMetadata(metadata);
  const auto headroom = input->take<uint16_t>();
  packet.fill = input->take<uint8_t>();
  const std::string_view bytes =
      input->bytes(std::min<size_t>(input->take<uint16_t>(), kBufferSize));
  packet.bytes.assign(bytes.begin(), bytes.end());
  packet.headroom =
      std::min<size_t>(headroom, kBufferSize - packet.bytes.size());
  if (flags & 4) {
    const size_t first =
        std::min<size_t>(input->take<uint16_t>(), packet.bytes.size());
    packet.segments = {first, packet.bytes.size() - first};
  }
  return packet;
}

}  // namespace
}  // namespace openflow_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace openflow_test;
  static Bench bench;
  openflow_fuzz::Input input(data, size);
  std::vector<InputPacket> packets;
  while (!input.empty() && packets.size() < kMaxBatch) {
    packets.push_back(takePacket(&input));
  }
  if (!packets.empty()) bench.compare(packets);
  return 0;
}
