// SPDX-License-Identifier: BSD-3-Clause
//
// The program "ofswitch check" itself: its output, its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>

#include "tests/support/programs_may_leak.h"
#include "tests/switch/explosive_flows.h"

namespace {

std::string contents(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

class CheckCommand : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "ofswitch-check-XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  void write(const std::string& name, const std::string& text) {
    std::ofstream(folder_ / name) << text;
  }

  // Runs in the folder; leaves what was printed and the exit status.
  void check(const std::string& arguments) {
    const std::string command = "cd " + folder_.string() +
                                " && " OFSWITCH " check " + arguments +
                                " > out 2> err";
    const int status = std::system(command.c_str());
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    out_ = contents(folder_ / "out");
    err_ = contents(folder_ / "err");
  }

  std::filesystem::path folder_;
  int status_ = -1;
  std::string out_;
  std::string err_;
};

TEST_F(CheckCommand, AcceptsGoodFiles) {
  write("flows.txt", "# two flows\nip,actions=output:1\nactions=drop\n");
  write("more.json", R"([{"getStats": {}}])");
  check("flows.txt");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_, "2 flows accepted, 0 refused\n");
  EXPECT_EQ(err_, "");
  check("flows.txt more.json");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_, "2 flows and 1 command accepted, 0 refused\n");
}

TEST_F(CheckCommand, AddsNothingToCommandLists) {
  write("list.json", R"([{"getStats": {}}])");
  check("-v list.json");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_, "0 flows and 1 command accepted, 0 refused\n");
  check("-v --json list.json");
  EXPECT_EQ(nlohmann::json::parse(out_)["installed"], nlohmann::json::array());
}

TEST_F(CheckCommand, AddsNoTableToCommandListsForATextWithoutFlows) {
  write("list.json", R"([{"getStats": {}}])");
  write("empty.txt", "# none\n");
  check("-v list.json empty.txt");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_, "0 flows and 1 command accepted, 0 refused\n");
}

TEST_F(CheckCommand, SaysWhatATextWithoutFlowsMeans) {
  write("empty.txt", "# none\n");
  check("-v empty.txt");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_,
            "table 0: has no flow, everything that enters it is dropped\n"
            "0 flows accepted, 0 refused\n");
}

TEST_F(CheckCommand, ReadsStandardInput) {
  write("flows.txt", "actions=drop\nactions=flod\n");
  check("- < flows.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "1 flow accepted, 1 refused\n");
  EXPECT_EQ(err_,
            "standard input:2: unknown action \"flod\", did you mean "
            "\"flood\"?\n");
  write("flows.txt", "actions=drop\n");
  check("--build - < flows.txt");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_THAT(out_, testing::HasSubstr("1 flow accepted, 0 refused\n"));
  EXPECT_THAT(out_, testing::HasSubstr("table 0"));
}

TEST_F(CheckCommand, ExitsWith2WhenItIsUsedWrongly) {
  write("flows.txt", "actions=drop\n");
  for (const char* wrong :
       {"", "--bogus", "--ports x flows.txt", "--ports 0 flows.txt",
        "--ports 8192 flows.txt", "--memory 127 flows.txt",
        "--build-memory 15 flows.txt"}) {
    check(wrong);
    EXPECT_EQ(status_, 2) << wrong;
    EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), 1) << err_;
  }
}

TEST_F(CheckCommand, FailsWhenItsOutputIsLost) {
  write("flows.txt", "actions=drop\n");
  const std::string command = "cd " + folder_.string() +
                              " && " OFSWITCH
                              " check flows.txt > /dev/full 2> err";
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1);
  EXPECT_EQ(contents(folder_ / "err"),
            "ofswitch: standard output: No space left on device\n");
}

TEST_F(CheckCommand, ShowsEveryRefusalOfEveryFile) {
  write("a.txt", "nw_dts=10.0.0.1,actions=drop\nactions=drop\nactions=flod\n");
  write("b.json", "[\n{\"getStats\": {\"tableId\": 32}}]");
  check("a.txt b.json c.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "1 flow accepted, 4 refused\n");
  EXPECT_EQ(err_,
            "a.txt:1: unknown field \"nw_dts\", did you mean \"nw_dst\"?\n"
            "a.txt:3: unknown action \"flod\", did you mean \"flood\"?\n"
            "b.json:2:1: command 0: getStats: tableId: 32 must be below 32\n"
            "c.txt: cannot open: No such file or directory\n");
}

TEST_F(CheckCommand, NotesReplacedFlows) {
  write("a.txt", "ip,actions=drop\n");
  write("b.txt", "dl_type=0x800,actions=output:1\n");
  check("a.txt b.txt");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_,
            "b.txt:1: note: replaces the flow of a.txt:1, which has the same "
            "table, priority and match\n");
}

TEST_F(CheckCommand, FloodsToTheGivenPorts) {
  std::string ports = "1";
  for (int port = 2; port <= 65; port++) ports += "," + std::to_string(port);
  write("a.txt", "actions=flood\n");
  check("a.txt --ports " + ports);
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "a.txt:1: sends 65 copies; the module's output list holds 64\n");
  EXPECT_EQ(out_, "0 flows accepted, 1 refused\n");
}

TEST_F(CheckCommand, TakesPortsInAnyOrder) {
  write("a.txt", "actions=output:2,output:4,output:9\n");
  check("a.txt --ports 9,4,2");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "");
  check("a.txt --ports 9,2");
  EXPECT_EQ(err_,
            "a.txt:1: note: output:4: port 4 is not connected, what is sent "
            "there goes nowhere\n");
}

TEST_F(CheckCommand, ShowsNormalFormsAndGuards) {
  write("a.txt",
        "priority=7,ip,actions=dec_ttl,goto_table:1\n"
        "tcp6,tcp_dst=80 actions=2\n");
  check("-v a.txt");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_,
            "a.txt:1: ipv4 priority 16: "
            "table=0,priority=7,ip,actions=dec_ttl,goto_table:1\n"
            "a.txt:1: ipv4 priority 17: guard: ip,nw_ttl=0/0xfe,"
            "actions=drop\n"
            "a.txt:2: ipv6 priority 65538: "
            "table=0,priority=32768,tcp6,tp_dst=80,actions=output:2\n"
            "table 1: has no flow, everything that enters it is dropped\n"
            "2 flows accepted, 0 refused\n");
}

TEST_F(CheckCommand, PrintsJson) {
  write("a.txt", "ip,actions=dec_ttl,output:1\nactions=flod\n");
  check("--json -v a.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_, "");
  const auto report = nlohmann::json::parse(out_);
  EXPECT_EQ(report["flows"], 1);
  EXPECT_EQ(report["refused"], 1);
  EXPECT_EQ(report["refusals"][0]["file"], "a.txt");
  EXPECT_EQ(report["refusals"][0]["line"], 2);
  EXPECT_EQ(report["refusals"][0]["reason"],
            "unknown action \"flod\", did you mean \"flood\"?");
  EXPECT_EQ(report["installed"][0]["flow"],
            "table=0,priority=32768,ip,actions=dec_ttl,output:1");
  EXPECT_EQ(report["installed"][0]["modulePriority"], 65538);
  EXPECT_EQ(report["installed"][0]["guards"][0]["match"], "ip,nw_ttl=0/0xfe");
}

TEST_F(CheckCommand, PrintsAllOfItInJson) {
  using json = nlohmann::json;
  write("a.txt", "tcp6,actions=goto_table:1\ntcp6,actions=drop\n");
  write("b.json", "[\n{\"getStats\": {\"tableId\": 32}}, {\"getStats\": {}}]");
  check("--json a.txt b.json");
  EXPECT_EQ(json::parse(out_),
            json({{"flows", 2},
                  {"commands", 1},
                  {"refused", 1},
                  {"refusals",
                   {{{"file", "b.json"},
                     {"line", 2},
                     {"column", 1},
                     {"reason",
                      "command 0: getStats: tableId: 32 must be below 32"}}}},
                  {"notes",
                   {{{"file", "a.txt"},
                     {"line", 2},
                     {"reason",
                      "replaces the flow of a.txt:1, which has the same "
                      "table, priority and match"}}}}}));
  write("a.txt", "tcp6,actions=goto_table:1\n");
  check("--json -v a.txt");
  EXPECT_EQ(json::parse(out_)["installed"],
            json({{{"file", "a.txt"},
                   {"line", 1},
                   {"flow", "table=0,priority=32768,tcp6,actions=goto_table:1"},
                   {"family", "ipv6"},
                   {"modulePriority", 65538},
                   {"tableMiss", false},
                   {"guards", json::array()}},
                  {{"file", ""},
                   {"line", 0},
                   {"flow", "table=1,priority=0,actions=drop"},
                   {"family", "ipv4"},
                   {"modulePriority", 1},
                   {"tableMiss", true},
                   {"guards", json::array()}}}));
}

TEST_F(CheckCommand, ExplainsItself) {
  check("--help");
  EXPECT_EQ(status_, 0);
  EXPECT_NE(out_.find("ofswitch check [OPTIONS] FLOWS..."), std::string::npos);
  check("");
  EXPECT_NE(status_, 0);
  EXPECT_NE(err_.find("FLOWS is required"), std::string::npos) << err_;
}

TEST_F(CheckCommand, BuildsTheTables) {
  write("flows.txt",
        "table=0,ip,nw_dst=10.0.0.0/8,actions=goto_table:2\n"
        "table=0,arp,actions=drop\n"
        "table=2,ipv6,ipv6_dst=2001:db8::/32,actions=output:2\n");
  check("--build flows.txt");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(err_, "");
  const std::string figures =
      ", built in [0-9.]+ ms with 8193 KB, keeps [0-9]+ KB, [0-9]+ cycles a "
      "packet\n";
  EXPECT_TRUE(std::regex_match(
      out_, std::regex("3 flows accepted, 0 refused\n"
                       "table 0 IPv4: 2 flows" +
                       figures + "table 2 IPv6: 1 flow" + figures)))
      << out_;
}

TEST_F(CheckCommand, TellsOfBuildsInJson) {
  write("flows.json", R"([
    {"updateFlows": {"tableId": 3, "flowType": "OPENFLOW_TYPE_IPV6", "adds": [
      {"flowId": 1, "priority": 5, "match": {"fields": {"ethType": true},
       "values": {"ethType": 2048}}},
      {"flowId": 2, "priority": 5}]}},
    {"updateFlows": {"tableId": 3, "flowType": "OPENFLOW_TYPE_IPV6",
      "deletes": [{"flowId": 1}]}},
    {"getStats": {"tableId": 5}},
    {"updateFlows": {"tableId": 4, "adds": [{"flowId": 9, "priority": 1}]}},
    {"updateFlows": {"tableId": 4, "deletes": [{"flowId": 9}]}}])");
  check("--build --json flows.json");
  EXPECT_EQ(status_, 0) << err_;
  const auto tables = nlohmann::json::parse(out_)["tables"];
  ASSERT_EQ(tables.size(), 2);
  EXPECT_EQ(tables[0]["table"], 3);
  EXPECT_EQ(tables[0]["family"], "ipv6");
  EXPECT_EQ(tables[0]["flows"], 1);
  EXPECT_EQ(tables[0]["builds"], true);
  EXPECT_GT(tables[0]["milliseconds"], 0);
  EXPECT_GT(tables[0]["buildBytes"], 8 << 20);
  EXPECT_GT(tables[0]["keptBytes"], 1000);
  EXPECT_LT(tables[0]["keptBytes"], 100000);
  EXPECT_GT(tables[0]["cyclesPerPacket"], 1);
  EXPECT_EQ(tables[1]["table"], 4);
  EXPECT_EQ(tables[1]["flows"], 0);
  EXPECT_EQ(tables[1]["cyclesPerPacket"], 0);
  check("--build flows.json");
  EXPECT_EQ(status_, 0) << err_;
  EXPECT_TRUE(out_.ends_with(" cycles a packet\ntable 4 IPv4: 0 flows\n"))
      << out_;
}

TEST_F(CheckCommand, NamesTheTableThatDoesNotBuild) {
  const openflow_test::ProgramsMayLeak records;
  write("flows.txt",
        openflow_test::explosiveFlows() + "table=1,actions=drop\n");
  check("--build --build-memory 16 flows.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(err_,
            "flows.txt: table 0 IPv4: its classifier needs more than 16 MB to "
            "build (--build-memory): fields that some flows leave open and "
            "others fix multiply, see docs/flow-sets.md\n");
  EXPECT_NE(out_.find("\ntable 1 IPv4: 1 flow, built in "), std::string::npos);

  check("--build --build-memory 16 --json flows.txt");
  EXPECT_EQ(status_, 1);
  const auto tables = nlohmann::json::parse(out_)["tables"];
  EXPECT_EQ(tables[0]["builds"], false);
  EXPECT_FALSE(tables[0].contains("cyclesPerPacket"));
  EXPECT_TRUE(tables[0].contains("failure"));
  EXPECT_EQ(tables[1]["builds"], true);
}

TEST_F(CheckCommand, BuildsNothingWhenALineIsRefused) {
  write("flows.txt", "actions=drop\nactions=flod\n");
  check("--build flows.txt");
  EXPECT_EQ(status_, 1);
  EXPECT_EQ(out_, "1 flow accepted, 1 refused\n");
}

}  // namespace
