// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/random_traffic.h"

#include <algorithm>
#include <set>
#include <utility>

#include "tests/support/frame.h"

namespace openflow_test {
namespace {

// Ethernet, the longest chain of tags and SNAP that is parsed, the longest IPv4
// header and a TCP header fit in.
constexpr size_t kRoomForHeaders = 14 + 8 + 4 + 60 + 20;

const Mac kMacs[] = {kDstMac, kSrcMac, mac("02:00:00:00:01:0d"),
                     mac("ff:ff:ff:ff:ff:ff")};
const Mac kMacMasks[] = {kFullMac, mac("ff:ff:ff:00:00:00"),
                         mac("01:00:00:00:00:00"), mac("00:00:00:00:ff:ff")};
const uint32_t kIp4s[] = {0x0a000001, 0x0a000002, 0x0a000101,
                          0xc0a80001, 0xffffffff, 0};
const uint32_t kIp4Masks[] = {0xffffffff, 0xffffff00, 0xff000000, 0x000000ff,
                              0x00ff00ff};
const Ip6 kIp6s[] = {ip6("2001:db8::1"), ip6("2001:db8::2"),
                     ip6("2001:db8:1::1"), ip6("fe80::ff")};
const Ip6 kIp6Masks[] = {kFullIp6, ip6("ffff:ffff:ffff::"), ip6("ffff::ffff"),
                         ip6("::ffff")};
const uint16_t kPorts[] = {7, 53, 80, 443, 0, 0xffff};
const uint16_t kVids[] = {1, 5, 100, 0xfff};
const uint16_t kTypes[] = {0x0800, 0x86dd, 0x0806, 0x88a8, 0x88b5, 0};
const uint8_t kProtos[] = {0, 1, 6, 17, 58, 253};
const uint8_t kTos[] = {0, 0x10, 0xb8, 0xff};
const uint8_t kTtls[] = {0, 1, 2, 64, 255};
const uint8_t kTcpFlags[] = {0x02, 0x12, 0x10, 0x18, 0x04};
const uint8_t kByteMasks[] = {0xff, 0x0f, 0xf0, 0x02, 0xfc};
const uint8_t kIcmps[] = {0, 3, 8, 128, 129};
const uint64_t kMetadata[] = {0, 1, 5, 0x1122334455667788, 0x100000000};
const uint32_t kInPorts[] = {0, 1, 2, 7, 9, 0x10002, 0x0001ffff};

void randomMatch(Random* random, bool ipv6, Flow* flow) {
  const uint32_t numFields = random->below(4);
  for (uint32_t n = 0; n < numFields; n++) {
    switch (random->below(19)) {
      case 0:
        flow->ethDst(random->pick(kMacs), random->pick(kMacMasks));
        break;
      case 1:
        flow->ethSrc(random->pick(kMacs), random->pick(kMacMasks));
        break;
      case 2:
        flow->ethType(random->pick(kTypes));
        break;
      case 3:
        flow->vlanVid(random->pick(kVids), random->oneIn(2) ? 0x0fff : 0xffff);
        break;
      case 4:
        flow->vlanPcp(random->below(8));
        break;
      case 5:
        flow->ipTos(random->pick(kTos), random->pick(kByteMasks));
        break;
      case 6:
        flow->ipTtl(random->pick(kTtls), random->pick(kByteMasks));
        break;
      case 7:
      case 8:
        flow->ipProto(random->pick(kProtos));
        break;
      // The other family's addresses are there to be ignored.
      case 9:
        flow->ipv4Src(random->pick(kIp4s), random->pick(kIp4Masks));
        break;
      case 10:
        flow->ipv4Dst(random->pick(kIp4s), random->pick(kIp4Masks));
        break;
      case 11:
        flow->ipv6Src(random->pick(kIp6s), random->pick(kIp6Masks));
        break;
      case 12:
        flow->ipv6Dst(random->pick(kIp6s), random->pick(kIp6Masks));
        break;
      case 13:
        flow->l4SrcPort(random->pick(kPorts));
        break;
      case 14:
        flow->l4DstPort(random->pick(kPorts));
        break;
      case 15:
        flow->tcpFlags(random->pick(kTcpFlags), random->pick(kByteMasks));
        break;
      case 16:
        if (random->oneIn(2)) {
          flow->icmpType(random->pick(kIcmps));
        } else {
          flow->icmpCode(random->pick(kIcmps));
        }
        break;
      case 17:
        if (!ipv6) {
          flow->arpTpa(random->pick(kIp4s), random->pick(kIp4Masks));
        }
        break;
      case 18:
        flow->metadata(random->pick(kMetadata));
        break;
    }
  }
}

void randomRewrites(Random* random, Flow* flow) {
  if (random->oneIn(4)) flow->popVlan();
  if (random->oneIn(4)) {
    flow->setVlanVid(random->oneIn(4) ? static_cast<uint32_t>(random->bits())
                                      : random->pick(kVids));
  }
  if (random->oneIn(4)) flow->setVlanPcp(random->below(10));
  if (random->oneIn(4)) flow->setEthDst(random->pick(kMacs));
  if (random->oneIn(4)) flow->setEthSrc(random->pick(kMacs));
  if (random->oneIn(2)) flow->decTtl();
  if (random->oneIn(4)) flow->setIpTos(random->pick(kTos));
  if (random->oneIn(4)) flow->setIpv4Src(random->pick(kIp4s));
  if (random->oneIn(4)) flow->setIpv4Dst(random->pick(kIp4s));
  if (random->oneIn(4)) flow->setL4SrcPort(random->pick(kPorts));
  if (random->oneIn(4)) {
    flow->setL4DstPort(static_cast<uint32_t>(random->bits()));
  }
  if (random->oneIn(4)) flow->setIcmpType(random->pick(kIcmps));
  if (random->oneIn(4)) flow->setIcmpCode(random->pick(kIcmps));
}

void randomOutputs(Random* random, const RandomFlowOptions& options,
                   Flow* flow) {
  std::vector<uint32_t> gates(random->below(5));
  for (uint32_t& gate : gates) gate = random->pick(options.gates);
  if (random->oneIn(6)) flow->outputAll(gates);
  if (random->oneIn(6)) flow->flood(gates);
  if (random->oneIn(2)) flow->output(gates);
  if (random->oneIn(6)) flow->outputInPort();
  if (random->oneIn(6)) {
    const auto reason = static_cast<uint32_t>(random->bits());
    random->oneIn(2) ? flow->trap(reason) : flow->controller(reason);
  }
  if (random->oneIn(8)) flow->drop();
  if (options.gotoTables && random->oneIn(2)) {
    // Mostly a later table; at times itself, an earlier one or none at all.
    const bool later = !random->oneIn(8) && options.tableId + 1 < kFlowTables;
    flow->gotoTable(later ? options.tableId + 1 +
                                random->below(std::min(
                                    3u, kFlowTables - 1 - options.tableId))
                          : random->below(300));
  }
}

Frame randomLayer2(Random* random) {
  Frame frame = Frame::eth(random->pick(kMacs), random->pick(kMacs));
  if (random->oneIn(12)) {
    frame.snap(static_cast<uint8_t>(random->bits()), random->oneIn(4));
  }
  for (int tags = 0; tags < 2 && random->oneIn(3); tags++) {
    const auto tci =
        static_cast<uint16_t>(random->below(8) << 13 | random->pick(kVids));
    frame.tag(random->oneIn(4) ? 0x88a8 : 0x8100, tci);
  }
  if (random->oneIn(24)) frame.snap();
  if (random->oneIn(24)) frame.llc(0x42, 0x42);
  return frame;
}

void randomLayer4(Random* random, Frame* frame) {
  switch (random->below(4)) {
    case 0:
      frame->udp(random->pick(kPorts), random->pick(kPorts));
      if (random->oneIn(3)) frame->udpNoChecksum();
      break;
    case 1:
      frame->icmp(random->pick(kIcmps), random->pick(kIcmps));
      break;
    default:
      frame->tcp(random->pick(kPorts), random->pick(kPorts),
                 random->pick(kTcpFlags));
      break;
  }
  if (random->oneIn(10)) frame->proto(random->pick(kProtos));
}

Frame randomFrame(Random* random) {
  Frame frame = randomLayer2(random);
  const uint32_t kind = random->below(12);
  if (kind < 6) {
    frame.ipv4(random->pick(kIp4s), random->pick(kIp4s));
    if (random->oneIn(4)) {
      frame.options(static_cast<uint8_t>(5 + random->below(11)));
    }
    if (random->oneIn(6)) frame.rawIhl(static_cast<uint8_t>(random->below(16)));
    if (random->oneIn(8)) {
      frame.fragment(static_cast<uint16_t>(random->below(100)),
                     random->oneIn(2));
    }
  } else if (kind < 10) {
    frame.ipv6(random->pick(kIp6s), random->pick(kIp6s));
    frame.flowLabel(static_cast<uint32_t>(random->bits()));
    if (random->oneIn(6)) frame.hopByHop();
  } else if (kind == 10) {
    frame.arp(random->pick(kIp4s), random->pick(kIp4s));
  } else {
    frame.ethType(random->pick(kTypes));
  }
  if (kind < 10) {
    frame.ttl(random->pick(kTtls)).tos(random->pick(kTos));
    randomLayer4(random, &frame);
  }
  return frame;
}

MetadataBlock randomBlock(Random* random, uint32_t startTables) {
  MetadataBlock block;
  // The bits that belong to other modules stay with the received packet.
  block.flags = random->bits() & 0xfff0;
  block.flags &= ~MetadataBlock::kStartTableValid;
  block.metadata = random->pick(kMetadata);
  block.inPort = random->pick(kInPorts);
  block.puntWord = static_cast<uint32_t>(random->bits());
  if (random->oneIn(2)) block.flags |= MetadataBlock::kMetadataValid;
  if (!random->oneIn(4)) block.flags |= MetadataBlock::kInPortValid;
  if (random->oneIn(4)) block.flags |= MetadataBlock::kPuntValid;
  if (random->oneIn(3)) {
    block.withStartTable(static_cast<uint16_t>(random->below(startTables)));
  }
  return block;
}

}  // namespace

Flow randomFlow(Random* random, uint32_t flowId, uint32_t priority,
                const RandomFlowOptions& options) {
  Flow flow(flowId, priority);
  flow.counters(random->below(options.numFlowCounters + 2),
                random->below(options.numFlowCounters + 2));
  randomMatch(random, options.family == Family::kIpv6, &flow);
  randomRewrites(random, &flow);
  if (!random->oneIn(12)) randomOutputs(random, options, &flow);
  return flow;
}

quil::pb::OpenFlowUpdateFlowsArg randomUpdate(
    Random* random, uint32_t maxFlows, const RandomFlowOptions& options) {
  quil::pb::OpenFlowUpdateFlowsArg update;
  update.set_tableid(options.tableId);
  update.set_flowtype(options.family == Family::kIpv6
                          ? quil::pb::OPENFLOW_TYPE_IPV6
                          : quil::pb::OPENFLOW_TYPE_IPV4);
  std::set<uint32_t> used;
  const uint32_t numFlows = random->below(maxFlows + 1);
  for (uint32_t id = 0; id < numFlows; id++) {
    uint32_t priority;
    do {
      priority = random->below(2 * maxFlows);
    } while (!used.insert(priority).second);
    *update.add_adds() = randomFlow(random, id, priority, options).message();
  }
  return update;
}

InputPacket randomPacket(Random* random, const RandomPacketOptions& options) {
  Frame frame = randomFrame(random);
  frame.payload(random->oneIn(16) ? 1400 : random->below(64));
  InputPacket packet(frame, randomBlock(random, options.startTables));
  packet.fill = static_cast<uint8_t>(random->bits());

  if (options.truncate) {
    if (random->oneIn(2)) {
      packet.bytes.resize(
          random->below(static_cast<uint32_t>(packet.bytes.size()) + 1));
    }
    packet.bytes.resize(std::max(packet.bytes.size(), options.minLength));
    const auto spare = static_cast<uint32_t>(kBufferSize - packet.bytes.size());
    switch (random->below(3)) {
      case 0:
        packet.headroom = random->below(8);
        break;
      case 1:
        packet.headroom = spare - random->below(100);
        break;
      default:
        packet.headroom = random->below(spare + 1);
        break;
    }
    return packet;
  }

  while (packet.bytes.size() < std::max(kRoomForHeaders, options.minLength)) {
    packet.bytes.push_back(static_cast<uint8_t>(random->bits()));
  }
  if (options.segments && random->oneIn(3)) {
    size_t left = packet.bytes.size() - kRoomForHeaders;
    packet.segments = {kRoomForHeaders};
    while (left > 0 && packet.segments.size() < 5) {
      const size_t length = 1 + random->below(static_cast<uint32_t>(left));
      packet.segments.push_back(length);
      left -= length;
    }
    packet.segments.back() += left;
  }
  return packet;
}

std::vector<InputPacket> randomBatch(Random* random,
                                     const RandomPacketOptions& options) {
  std::vector<InputPacket> batch;
  const uint32_t numPackets =
      random->oneIn(2) ? kMaxBatch : 1 + random->below(kMaxBatch);
  for (uint32_t i = 0; i < numPackets; i++) {
    batch.push_back(randomPacket(random, options));
  }
  return batch;
}

}  // namespace openflow_test
