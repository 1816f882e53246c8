// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/grpc_log.h"

#include <gmock/gmock.h>
#include <grpc/support/log.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "switch.pb.h"
#include "switch/live/log_report.h"

namespace ofswitch {
namespace {

using testing::EndsWith;
using testing::StartsWith;

// Without GRPC_VERBOSITY. Leaves gRPC's messages to whom the environment leaves
// them.
class GrpcLog : public testing::Test {
 protected:
  GrpcLog() {
    gpr_log_verbosity_init();  // if nobody has: the verbosity is known then
    while (!gpr_should_log(least_) && least_ != GPR_LOG_SEVERITY_ERROR) {
      least_ = static_cast<gpr_log_severity>(least_ + 1);
    }
    gpr_set_log_verbosity(GPR_LOG_SEVERITY_ERROR);
    if (const char* value = std::getenv(kVariable)) before_ = value;
    unsetenv(kVariable);
  }
  ~GrpcLog() override {
    if (before_.has_value()) setenv(kVariable, before_->c_str(), 1);
    gpr_set_log_verbosity(least_);
    gpr_set_log_function(nullptr);
    keepGrpcMessages();
  }

  static constexpr char kVariable[] = "GRPC_VERBOSITY";

 private:
  std::optional<std::string> before_;
  gpr_log_severity least_ = GPR_LOG_SEVERITY_DEBUG;  // that is told
};

// What gRPC's saying so leaves on standard error.
std::string told(const std::string& message) {
  testing::internal::CaptureStderr();
  gpr_log_message("file.cc", 7, GPR_LOG_SEVERITY_ERROR, message.c_str());
  return testing::internal::GetCapturedStderr();
}

std::vector<std::string> logged(uint64_t* since) {
  pb::LogRequest request;
  request.set_facility("ControlDoor");
  request.set_since(*since);
  std::vector<pb::LogEntry> entries;
  *since = readLogEntries(request, SIZE_MAX, &entries);
  std::vector<std::string> texts;
  for (const pb::LogEntry& entry : entries) texts.push_back(entry.text());
  return texts;
}

// With its last words: nobody can ask for the log afterwards.
TEST_F(GrpcLog, TellsWhyTheProcessEnds) {
  keepGrpcMessages();
  uint64_t since = 0;
  logged(&since);
  EXPECT_EQ(told("assertion failed: x > 0"),
            "ofswitch: gRPC: file.cc:7: assertion failed: x > 0\n");
  EXPECT_EQ(told("an assertion failed: no"), "");
  EXPECT_THAT(logged(&since),
              testing::ElementsAre(StartsWith("gRPC: assertion failed: x > 0"),
                                   StartsWith("gRPC: an assertion failed")));
}

TEST_F(GrpcLog, IsLeftToWhoAsksGrpcForIt) {
  gpr_set_log_function(nullptr);
  setenv(kVariable, "ERROR", 1);
  keepGrpcMessages();
  EXPECT_THAT(told("one"), EndsWith(" one\n"));
  unsetenv(kVariable);
  keepGrpcMessages();
  EXPECT_EQ(told("two"), "");
}

}  // namespace
}  // namespace ofswitch
