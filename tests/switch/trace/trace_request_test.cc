// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/trace_request.h"

#include <gtest/gtest.h>

#include "switch/flow/refused.h"
#include "switch/trace/table_probe.h"

namespace ofswitch {
namespace {

using Ports = std::vector<uint16_t>;

pb::TraceRequest textRequest(const std::string& text, uint32_t inPort = 0,
                             uint32_t table = 0) {
  pb::TraceRequest request;
  request.set_text(text);
  request.set_in_port(inPort);
  request.set_table(table);
  return request;
}

pb::TraceRequest frameRequest(size_t size, uint32_t inPort = 1,
                              uint32_t table = 0) {
  pb::TraceRequest request;
  request.set_frame(std::string(size, 'x'));
  request.set_in_port(inPort);
  request.set_table(table);
  return request;
}

std::string refusalOf(const pb::TraceRequest& request,
                      const Ports& ports = {}) {
  try {
    readTraceRequest(request, ports);
  } catch (const Refused& refused) {
    return refused.what();
  }
  return "";
}

// Where the packet comes in and starts: "port/table".
std::string placeOf(const pb::TraceRequest& request) {
  const TracedPacket packet = readTraceRequest(request, {});
  return std::to_string(packet.inPort) + "/" + std::to_string(packet.table);
}

TEST(TraceRequest, TextOrWhatStandsBesideNamesPortAndTable) {
  EXPECT_EQ(placeOf(textRequest("in_port=5,table=3,tcp")), "5/3");
  EXPECT_EQ(placeOf(textRequest("tcp", 5, 3)), "5/3");
  EXPECT_EQ(placeOf(textRequest("in_port=5,table=3,tcp", 5, 3)), "5/3");
  EXPECT_EQ(placeOf(textRequest("in_port=8191,table=31,tcp")), "8191/31");
  EXPECT_EQ(placeOf(frameRequest(60, 8191, 31)), "8191/31");
  EXPECT_EQ(refusalOf(frameRequest(60, 8192)),
            "in_port=8192: ports are numbers from 1 to 8191");
  EXPECT_EQ(refusalOf(textRequest("table=3,tcp", 5, 4)),
            "table=3 in the packet's text, but 4 was asked for");
  EXPECT_EQ(refusalOf(textRequest("in_port=1,table=0,table=2,tcp")),
            "table=2: stands there twice");
}

TEST(TraceRequest, FramesHaveALength) {
  EXPECT_EQ(readTraceRequest(frameRequest(kMinFrame), {}).frame,
            std::string(kMinFrame, 'x'));
  EXPECT_EQ(readTraceRequest(frameRequest(kMaxFrame), {}).frame,
            std::string(kMaxFrame, 'x'));
}

TEST(TraceRequest, TextHasALength) {
  std::string text = "in_port=1,tcp";
  text.resize(4096, ' ');
  EXPECT_EQ(refusalOf(textRequest(text)), "");
  text += ' ';
  EXPECT_EQ(refusalOf(textRequest(text)),
            "the packet's text has 4097 bytes; 4096 are enough for any packet");
}

// Words of a flow line that no packet has.
TEST(TraceRequest, TextIsAboutAPacket) {
  for (const std::string word : {"priority", "cookie", "idle_timeout",
                                 "hard_timeout", "actions", "out_port"}) {
    EXPECT_EQ(refusalOf(textRequest("in_port=1,tcp," + word + "=1")),
              word + "=1: a packet has no " + word);
  }
}

TEST(TraceRequest, SaysWhichPortsThereAre) {
  const auto listed = [](const Ports& ports) {
    const std::string start =
        "the packet comes in by no port: name one, in_port=PORT (";
    const std::string text = refusalOf(textRequest("tcp"), ports);
    EXPECT_EQ(text.substr(0, start.size()), start);
    return text.substr(start.size());
  };
  EXPECT_EQ(listed({}), "the switch has no ports)");
  EXPECT_EQ(listed({4}), "the switch has port 4)");
  EXPECT_EQ(listed({4, 7}), "the switch has ports 4, 7)");
  EXPECT_EQ(listed({1, 2, 3, 4, 5, 6, 7, 8}),
            "the switch has ports 1, 2, 3, 4, 5, 6, 7, 8)");
  EXPECT_EQ(listed({1, 2, 3, 4, 5, 6, 7, 8, 9}),
            "the switch has ports 1, 2, 3, 4, 5, 6, 7, 8, ...)");
}

}  // namespace
}  // namespace ofswitch
