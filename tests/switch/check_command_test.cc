// SPDX-License-Identifier: BSD-3-Clause
//
// The program "ofswitch check" itself: its output, its exit status.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

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
  EXPECT_EQ(out_, "2 flows and 1 commands accepted, 0 refused\n");
}

TEST_F(CheckCommand, AddsNothingToCommandLists) {
  write("list.json", R"([{"getStats": {}}])");
  check("-v list.json");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(out_, "0 flows and 1 commands accepted, 0 refused\n");
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
  EXPECT_EQ(out_, "1 flows accepted, 4 refused\n");
  EXPECT_EQ(err_,
            "a.txt:1: unknown field \"nw_dts\", did you mean \"nw_dst\"?\n"
            "a.txt:3: unknown action \"flod\", did you mean \"flood\"?\n"
            "b.json:2: command 0: getStats: tableId: 32 must be below 32\n"
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

TEST_F(CheckCommand, ExplainsItself) {
  check("--help");
  EXPECT_EQ(status_, 0);
  EXPECT_NE(out_.find("ofswitch check [OPTIONS] FLOWS..."), std::string::npos);
  check("");
  EXPECT_NE(status_, 0);
  EXPECT_NE(err_.find("FLOWS is required"), std::string::npos) << err_;
}

}  // namespace
