// SPDX-License-Identifier: BSD-3-Clause
//
// Runs "ofswitch replay" in a folder of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/captures/capture_files.h"
#include "tests/support/frame.h"

namespace openflow_test {

inline std::string text(const Bytes& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

inline CaptureRow row(uint64_t ns, const Frame& frame) {
  return {ns, text(frame.bytes()), 0};
}

class ReplayCommand : public testing::Test {
 protected:
  void write(const std::string& name, const std::string& bytes) {
    writeFile(folder_ / name, bytes);
  }

  void capture(const std::string& name, const std::vector<CaptureRow>& rows,
               CaptureFormat format = CaptureFormat::kPcapNano) {
    write(name, captureBytes(rows, format));
  }

  // Runs in the folder; leaves what was printed, the exit status, and the
  // report. `before` stands in front of the program's name.
  void replay(const std::string& arguments, const std::string& before = "") {
    std::filesystem::remove(folder_ / "stats.json");
    const std::string folder = folder_.path().string();
    std::string command =
        "cd " + folder + " && " + before + " " OFSWITCH " replay " + arguments;
    if (arguments.find("--stats") == std::string::npos) {
      command += " --stats " + folder + "/stats.json";
    }
    command += " > " + folder + "/stdout 2> " + folder + "/stderr";
    const int status = std::system(command.c_str());
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    stdout_ = readFile(folder_ / "stdout");
    stderr_ = readFile(folder_ / "stderr");
    stats_ = std::filesystem::exists(folder_ / "stats.json")
                 ? nlohmann::json::parse(readFile(folder_ / "stats.json"))
                 : nlohmann::json();
  }

  // The same for runs that must go well, whose account must close.
  void replayWell(const std::string& arguments,
                  const std::string& before = "") {
    replay(arguments, before);
    ASSERT_EQ(status_, 0) << stderr_;
    EXPECT_EQ(stderr_, "");
    EXPECT_TRUE(account("nothingLost")) << stdout_;
  }

  std::vector<CaptureRow> written(const std::string& name) const {
    return readCapture(folder_ / name);
  }
  bool exists(const std::string& name) const {
    return std::filesystem::exists(folder_ / name);
  }

  // Entries of the report.
  nlohmann::json account(const std::string& name) const {
    return stats_.at("accounting").at(name);
  }
  nlohmann::json table(unsigned id) const {
    for (const nlohmann::json& table : stats_.at("tables")) {
      if (table.at("tableId") == id) return table;
    }
    return {};
  }
  nlohmann::json port(unsigned number) const {
    for (const nlohmann::json& port : stats_.at("ports")) {
      if (port.at("port") == number) return port;
    }
    return {};
  }
  // Packets of the flow at that place.
  nlohmann::json packetsOf(const std::string& where) const {
    for (const nlohmann::json& flow : stats_.at("flows")) {
      if (flow.at("where") == where) return flow.at("packets");
    }
    return {};
  }

  ScratchDir folder_;
  int status_ = -1;
  std::string stdout_;
  std::string stderr_;
  nlohmann::json stats_;
};

}  // namespace openflow_test
