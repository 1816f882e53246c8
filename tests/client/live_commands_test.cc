// SPDX-License-Identifier: BSD-3-Clause
//
// The commands against a switch that runs.
#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "tests/client/client_command.h"
#include "tests/control_door/control_bench.h"
#include "tests/support/frame.h"
#include "tests/support/time_limit.h"

namespace ofswitch {
namespace {

using openflow_test::Frame;
using openflow_test::ip4;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;

class LiveCommands : public ClientCommand {
 protected:
  void ask(const std::string& arguments, const std::string& before = "") {
    runAt(control_.socket(), arguments, before);
  }

  // For what must go well.
  std::string answer(const std::string& arguments,
                     const std::string& before = "") {
    ask(arguments, before);
    EXPECT_EQ(status_, 0) << arguments << ": " << err_;
    EXPECT_EQ(err_, "") << arguments;
    return out_;
  }

  // The first line of the answer to a change.
  std::string summary(const std::string& arguments,
                      const std::string& before = "") {
    const std::string text = answer(arguments, before);
    return text.substr(0, text.find('\n'));
  }

  void send(int packets) {
    const Frame frame =
        Frame::eth().ipv4(ip4("10.0.0.1"), ip4("10.0.0.2")).udp(5, 6);
    control_.bench().receive(1, frame.bytes(), packets);
    control_.bench().settled();
  }

  ControlBench control_{{.counters = 1 << 16}};
};

constexpr char kFlows[] =
    "cookie=0x7,table=0,priority=100,udp,nw_dst=10.0.0.0/8,tp_dst=6,"
    "actions=dec_ttl,output:3\n"
    "table=0,priority=90,idle_timeout=300,ipv6,actions=goto_table:1\n"
    "table=1,priority=5,dl_vlan=7,dl_src=02:00:00:00:00:00/ff:00:00:00:00:00,"
    "actions=strip_vlan,in_port\n"
    "table=1,actions=drop\n";

TEST_F(LiveCommands, FlowsGoInAndComeBack) {
  write("flows.txt", kFlows);
  EXPECT_EQ(summary("flows add --file flows.txt"),
            "flows: 4 added, 0 changed, 0 removed, 0 unchanged");
  EXPECT_THAT(out_, HasSubstr("\n3 builds in "));
  send(3);

  const std::string dump = answer("flows dump");
  EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 4);
  // A slow build takes more than a second to start the program.
  const std::string age = openflow_test::timeLimit(1) == 1 ? "0" : "[0-9]+";
  EXPECT_THAT(dump, ContainsRegex("^cookie=0x7, duration=[0-9]+[.][0-9]{3}s, "
                                  "table=0, n_packets=3, n_bytes=[0-9]+, "
                                  "idle_age=" +
                                  age +
                                  ", priority=100,udp,nw_dst=10.0.0.0/8,"
                                  "tp_dst=6 actions=dec_ttl,output:3\n"));
  EXPECT_EQ(answer("flows dump table=1 --no-stats"),
            "cookie=0x0, table=1, priority=32768 actions=drop\n"
            "cookie=0x0, table=1, priority=5,dl_vlan=7,dl_src=02:00:00:00:00:"
            "00/ff:00:00:00:00:00 actions=strip_vlan,in_port\n");

  // A listing with its statistics is what the switch has already.
  EXPECT_EQ(summary("flows dump | " OFSWITCH " flows replace -"),
            "flows: 0 added, 0 changed, 0 removed, 4 unchanged");
  EXPECT_THAT(out_, StartsWith("flows: "));
  EXPECT_THAT(out_, HasSubstr("\nno build, "));
  EXPECT_EQ(summary("flows dump | " OFSWITCH " flows add -"),
            "flows: 0 added, 0 changed, 0 removed, 4 unchanged");
  write("saved.txt", answer("flows dump"));
  EXPECT_EQ(summary("flows del --all"),
            "flows: 0 added, 0 changed, 4 removed, 0 unchanged");
  EXPECT_EQ(answer("flows dump"), "");
  EXPECT_EQ(summary("flows add --file saved.txt"),
            "flows: 4 added, 0 changed, 0 removed, 0 unchanged");
}

TEST_F(LiveCommands, ListsFlowsAsJson) {
  answer("flows add 'cookie=0x7,udp,actions=output:3,controller'");
  send(2);
  answer("flows dump --json");
  ASSERT_EQ(json().size(), 1u);
  EXPECT_EQ(json()[0]["flow"],
            "table=0,priority=32768,cookie=0x7,udp,"
            "actions=output:3,controller(reason=action)");
  EXPECT_EQ(json()[0]["cookie"], 7);
  EXPECT_EQ(json()[0]["match"], "udp");
  EXPECT_EQ(json()[0]["nPackets"], 2);
  EXPECT_EQ(json()[0]["origin"], "command line:1");
}

TEST_F(LiveCommands, DeletesByFilter) {
  write("flows.txt", kFlows);
  answer("flows add --file flows.txt");
  EXPECT_EQ(summary("flows del cookie=0x7/-1"),
            "flows: 0 added, 0 changed, 1 removed, 0 unchanged");
  EXPECT_EQ(summary("flows del --strict table=1,priority=6,dl_vlan=7"),
            "flows: 0 added, 0 changed, 0 removed, 0 unchanged");
  EXPECT_EQ(summary("flows del table=1"),
            "flows: 0 added, 0 changed, 2 removed, 0 unchanged");
}

TEST_F(LiveCommands, RefusesAllOfAChangeForOneLine) {
  write("flows.txt", "actions=drop\nnw_dts=10.0.0.1,actions=drop\n");
  ask("flows add --file flows.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_,
            "flows.txt:2: unknown field \"nw_dts\", did you mean \"nw_dst\"?\n"
            "ofswitch: nothing was changed: 1 line refused\n");
  EXPECT_EQ(answer("flows dump"), "");
  ask("flows dump nw_dts=1");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "ofswitch: unknown field \"nw_dts\", did you mean \"nw_dst\"?\n");
}

TEST_F(LiveCommands, TellOfTablesPortsAndPackets) {
  answer("flows add udp,actions=output:3");
  send(5);
  answer("tables --json");
  ASSERT_EQ(json().size(), 1u);
  EXPECT_EQ(json()[0]["entered"], 5);
  EXPECT_EQ(json()[0]["counters"].size(), 12u);
  EXPECT_THAT(answer("tables"), HasSubstr("\n      0     1 "));
  answer("ports --json");
  ASSERT_EQ(json().size(), 4u);
  EXPECT_EQ(json()[1]["rxPackets"], 5);
  EXPECT_EQ(json()[3]["txPackets"], 5);
  answer("stats --exact --json");
  EXPECT_EQ(json()["packetsReceived"], 5);
  EXPECT_EQ(json()["packetsForwarded"], 5);
  EXPECT_EQ(json()["closes"], true);
  EXPECT_EQ(json()["exact"], true);
  EXPECT_THAT(answer("stats --exact"),
              testing::EndsWith("Every packet is accounted for.\n"));
}

TEST_F(LiveCommands, ShowTheLogAndItsLevels) {
  answer("flows add udp,actions=output:3");
  EXPECT_THAT(answer("log --facility OpenFlow"), HasSubstr(" OpenFlow/2 "));
  const std::string last = answer("log --last 2");
  EXPECT_EQ(std::count(last.begin(), last.end(), '\n'), 2);
  EXPECT_THAT(answer("log levels OpenFlow=none Controller=none"),
              HasSubstr("OpenFlow=none\n"));
  EXPECT_THAT(answer("log levels Controller=3"), HasSubstr("Controller=3\n"));
  EXPECT_EQ(answer("log levels"),
            "ControlDoor=none\nController=3\nOpenFlow=none\n");
  answer("log levels Controller=none");
  ask("log levels OpenFlw=1");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "ofswitch: nothing logs as \"OpenFlw\", did you mean "
            "\"OpenFlow\"?\n");
}

// Ten thousand flows are one build of their table and family.
TEST_F(LiveCommands, ManyFlowsAreOneBuild) {
  std::string flows;
  for (int i = 0; i < 10'000; i++) {
    flows += "table=4,udp,nw_dst=10." + std::to_string(i >> 8) + "." +
             std::to_string(i & 255) + ".1,actions=output:3\n";
  }
  write("flows.txt", flows);
  answer("flows add --file flows.txt --json");
  EXPECT_EQ(json()["added"], 10'000);
  EXPECT_EQ(json()["builds"].size(), 1u);
  EXPECT_EQ(json()["builds"][0]["adds"], 10'000);
  const std::string dump = answer("flows dump --no-stats");
  EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 10'000);
  ask("flows dump | head -1");
  EXPECT_EQ(err_, "");
  EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), 1);
}

}  // namespace
}  // namespace ofswitch
