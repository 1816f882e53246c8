// SPDX-License-Identifier: BSD-3-Clause
#include "bench/flow_frames.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

namespace bench {
namespace {

constexpr uint16_t kIpv4 = 0x0800;
constexpr uint16_t kTag = 0x8100;
constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;

// Writes a frame from its first byte to its last, in network order.
class FrameWriter {
 public:
  void bytes(const std::string& value) {
    std::memcpy(at_, value.data(), value.size());
    at_ += value.size();
  }
  void put8(uint8_t value) { *at_++ = value; }
  void put16(uint32_t value) {
    put8(static_cast<uint8_t>(value >> 8));
    put8(static_cast<uint8_t>(value));
  }
  void put32(uint32_t value) {
    put16(value >> 16);
    put16(value);
  }

  const FrameBytes& frame() const { return frame_; }

 private:
  FrameBytes frame_ = {};
  uint8_t* at_ = frame_.data();
};

// What a packet has in its fields: the flow's values, else random ones.
class Values {
 public:
  Values(const quil::pb::OfMatch& match, std::mt19937* random)
      : fields_(match.fields()), values_(match.values()), random_(*random) {}

  std::string ethDst() {
    return fields_.ethdst() ? values_.ethdst() : anyMac();
  }
  std::string ethSrc() {
    return fields_.ethsrc() ? values_.ethsrc() : anyMac();
  }
  bool isTagged() const { return fields_.vlanvid(); }
  uint32_t vlanVid() const { return values_.vlanvid(); }

  uint8_t ipProto() {
    if (fields_.ipproto()) return static_cast<uint8_t>(values_.ipproto());
    return random_() % 2 == 0 ? kTcp : kUdp;
  }
  uint32_t ipv4Src() {
    return fields_.ipv4src() ? within(values_.ipv4src(), values_.ipv4srcmask())
                             : any32();
  }
  uint32_t ipv4Dst() {
    return fields_.ipv4dst() ? within(values_.ipv4dst(), values_.ipv4dstmask())
                             : any32();
  }
  uint32_t l4SrcPort() {
    return fields_.l4srcport() ? values_.l4srcport() : any32();
  }
  uint32_t l4DstPort() {
    return fields_.l4dstport() ? values_.l4dstport() : any32();
  }

 private:
  uint32_t any32() { return static_cast<uint32_t>(random_()); }
  uint32_t within(uint32_t value, uint32_t mask) {
    return value | (any32() & ~mask);
  }
  std::string anyMac() {
    std::string mac(6, '\x02');
    std::generate(mac.begin() + 1, mac.end(),
                  [&] { return static_cast<char>(random_()); });
    return mac;
  }

  const quil::pb::OfMatchFields& fields_;
  const quil::pb::OfMatchValues& values_;
  std::mt19937& random_;
};

FrameBytes frameOf(const quil::pb::OfMatch& match, std::mt19937* random) {
  Values values(match, random);
  FrameWriter frame;
  frame.bytes(values.ethDst());
  frame.bytes(values.ethSrc());
  if (values.isTagged()) {
    frame.put16(kTag);
    frame.put16(values.vlanVid());
  }
  frame.put16(kIpv4);
  frame.put16(0x4500);  // version, header length, TOS
  frame.put16(40);      // total length
  frame.put32(0);       // identification, fragment
  frame.put8(64);       // TTL
  frame.put8(values.ipProto());
  frame.put16(0);  // checksum, which no lookup reads
  frame.put32(values.ipv4Src());
  frame.put32(values.ipv4Dst());
  frame.put16(values.l4SrcPort());
  frame.put16(values.l4DstPort());
  return frame.frame();
}

}  // namespace

std::vector<FrameBytes> framesOf(
    const std::vector<quil::pb::OpenFlowAddFlow>& flows) {
  std::mt19937 random(1);
  std::vector<FrameBytes> frames;
  for (size_t i = 0; i < 10 * flows.size(); i++) {
    const auto& flow = flows[random() % flows.size()];
    frames.push_back(frameOf(flow.match(), &random));
  }
  return frames;
}

}  // namespace bench
