// SPDX-License-Identifier: BSD-3-Clause
#include "bench/flow_frames.h"

#include <algorithm>
#include <random>
#include <string>

#include "tests/support/frame.h"

namespace bench {
namespace {

using openflow_test::Bytes;
using openflow_test::Frame;
using openflow_test::Mac;

constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;

// What a packet has in its fields: the flow's values, else random ones.
class Values {
 public:
  Values(const quil::pb::OfMatch& match, std::mt19937* random)
      : fields_(match.fields()), values_(match.values()), random_(*random) {}

  Mac ethDst() { return fields_.ethdst() ? macOf(values_.ethdst()) : anyMac(); }
  Mac ethSrc() { return fields_.ethsrc() ? macOf(values_.ethsrc()) : anyMac(); }
  bool isTagged() const { return fields_.vlanvid(); }
  uint16_t vlanVid() const { return static_cast<uint16_t>(values_.vlanvid()); }

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
  uint16_t l4SrcPort() {
    return static_cast<uint16_t>(fields_.l4srcport() ? values_.l4srcport()
                                                     : any32());
  }
  uint16_t l4DstPort() {
    return static_cast<uint16_t>(fields_.l4dstport() ? values_.l4dstport()
                                                     : any32());
  }

 private:
  uint32_t any32() { return static_cast<uint32_t>(random_()); }
  uint32_t within(uint32_t value, uint32_t mask) {
    return value | (any32() & ~mask);
  }
  static Mac macOf(const std::string& bytes) {
    Mac mac = {};
    std::copy_n(bytes.begin(), mac.size(), mac.begin());
    return mac;
  }
  Mac anyMac() {
    Mac mac = {2};
    std::generate(mac.begin() + 1, mac.end(),
                  [&] { return static_cast<uint8_t>(random_()); });
    return mac;
  }

  const quil::pb::OfMatchFields& fields_;
  const quil::pb::OfMatchValues& values_;
  std::mt19937& random_;
};

FrameBytes frameOf(const quil::pb::OfMatch& match, std::mt19937* random) {
  Values values(match, random);
  const Mac dst = values.ethDst();
  Frame frame = Frame::eth(dst, values.ethSrc());
  if (values.isTagged()) frame.vlan(values.vlanVid());
  const uint8_t proto = values.ipProto();
  const uint32_t ipv4Src = values.ipv4Src();
  frame.ipv4(ipv4Src, values.ipv4Dst());
  const uint16_t srcPort = values.l4SrcPort();
  if (proto == kUdp) {
    frame.udp(srcPort, values.l4DstPort());
  } else {
    frame.tcp(srcPort, values.l4DstPort()).proto(proto);
  }
  const Bytes bytes = frame.bytes();
  FrameBytes padded = {};
  std::copy_n(bytes.begin(), std::min(bytes.size(), padded.size()),
              padded.begin());
  return padded;
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
