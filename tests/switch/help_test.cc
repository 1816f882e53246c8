// SPDX-License-Identifier: BSD-3-Clause
//
// The pages that "--help" prints, word for word; see tests/switch/help. A page
// that was changed on purpose is written there anew.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/captures/capture_files.h"

namespace {

using openflow_test::readFile;
using openflow_test::ScratchDir;

const std::filesystem::path kPages = SOURCE_DIR "/tests/switch/help";

// What it prints. It fails when there is anything to complain about.
std::string helpOf(const std::string& command) {
  const ScratchDir dir;
  const std::string line = OFSWITCH " " + command + " --help > " +
                           (dir / "out").string() + " 2> " +
                           (dir / "err").string();
  const int status = std::system(line.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
  EXPECT_EQ(readFile(dir / "err"), "") << command;
  return readFile(dir / "out");
}

// "log levels" has its page in log_levels.txt.
std::string pageOf(std::string command) {
  std::ranges::replace(command, ' ', '_');
  return command.empty() ? "ofswitch.txt" : command + ".txt";
}

// The command and those below it, as their pages name them.
std::vector<std::string> commandsFrom(const std::string& command) {
  std::vector<std::string> commands = {command};
  std::istringstream page(helpOf(command));
  std::string line;
  while (std::getline(page, line) && line != "Subcommands:") {
  }
  while (std::getline(page, line) && !line.empty()) {
    std::string name;
    std::istringstream(line) >> name;
    const auto below =
        commandsFrom(command.empty() ? name : command + " " + name);
    std::ranges::copy(below, std::back_inserter(commands));
  }
  return commands;
}

TEST(Help, SaysWhatItsPagesSay) {
  const std::vector<std::string> commands = commandsFrom("");
  for (const std::string& command : commands) {
    ASSERT_TRUE(exists(kPages / pageOf(command))) << command;
    EXPECT_EQ(helpOf(command), readFile(kPages / pageOf(command))) << command;
  }
  const auto pages =
      std::distance(std::filesystem::directory_iterator(kPages), {});
  EXPECT_EQ(commands.size(), static_cast<size_t>(pages));
}

}  // namespace
