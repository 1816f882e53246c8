// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/grpc_log.h"

#include <gmock/gmock.h>
#include <grpc/support/log.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "switch.pb.h"
#include "switch/live/log_report.h"

namespace ofswitch {
namespace {

using testing::EndsWith;
using testing::StartsWith;

// What gRPC's saying so leaves on standard error.
std::string told(const std::string& message) {
  gpr_set_log_verbosity(GPR_LOG_SEVERITY_ERROR);  // as gRPC begins
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
TEST(GrpcLog, TellsWhyTheProcessEnds) {
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

TEST(GrpcLog, IsLeftToWhoAsksGrpcForIt) {
  gpr_set_log_function(nullptr);
  setenv("GRPC_VERBOSITY", "ERROR", 1);
  keepGrpcMessages();
  EXPECT_THAT(told("one"), EndsWith(" one\n"));
  unsetenv("GRPC_VERBOSITY");
  keepGrpcMessages();
  EXPECT_EQ(told("two"), "");
}

}  // namespace
}  // namespace ofswitch
