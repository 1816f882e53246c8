// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/captures/capture_files.h"
#include "tests/client/fake_switch.h"

namespace ofswitch {

// Runs the program against a control door of the test's own.
class ClientCommand : public testing::Test {
 protected:
  // `arguments` are the shell's; leaves what was printed and the exit status.
  void run(const std::string& arguments, const std::string& before = "") {
    runAt(fake_.socket(), arguments, before);
  }

  void runAt(const std::string& socket, const std::string& arguments,
             const std::string& before = "") {
    const std::string folder = dir_.path();
    const std::string command =
        "export OFSWITCH_SOCKET=" + socket + " TZ=UTC; cd " + folder + " && (" +
        before + " " OFSWITCH " " + arguments + ") > stdout 2> stderr";
    fake_.handOver();
    const int status = std::system(command.c_str());
    fake_.handOver();
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    out_ = openflow_test::readFile(dir_ / "stdout");
    err_ = openflow_test::readFile(dir_ / "stderr");
  }

  nlohmann::ordered_json json() const {
    return nlohmann::ordered_json::parse(out_);
  }

  void write(const std::string& name, const std::string& text) {
    openflow_test::writeFile(dir_ / name, text);
  }

  FakeSwitch fake_;
  openflow_test::ScratchDir dir_;
  int status_ = -1;
  std::string out_;
  std::string err_;
};

}  // namespace ofswitch
