// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/switch_service.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "platform/twinlog/twinlog.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/frame.h"

namespace ofswitch {
namespace {

using openflow_test::Frame;
using openflow_test::ip4;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

Frame tcpTo(uint16_t port) {
  return Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).tcp(1000, port);
}

TEST(SwitchService, ChangesFlowsAndListsThem) {
  ControlBench control;
  const pb::FlowChangeReply reply = control.add(
      "in_port=1,tcp,tp_dst=80,actions=output:3\n"
      "table=3,priority=7,cookie=0x2a,actions=drop\n");
  EXPECT_EQ(reply.added(), 2);
  EXPECT_EQ(reply.builds_size(), 2);
  control.bench().receive(1, tcpTo(80), 5);
  control.bench().settled();

  const std::vector<pb::FlowEntry> entries = control.dump();
  ASSERT_THAT(entries, SizeIs(2));
  EXPECT_EQ(entries[0].flow(),
            "table=0,priority=32768,in_port=1,tcp,tp_dst=80,actions=output:3");
  EXPECT_EQ(entries[0].n_packets(), 5);
  EXPECT_EQ(entries[1].cookie(), 0x2a);

  pb::FlowFilter filter;
  filter.set_text("table=3");
  EXPECT_THAT(control.dump(filter), SizeIs(1));
}

}  // namespace
}  // namespace ofswitch
