// SPDX-License-Identifier: BSD-3-Clause
#include "message.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

TEST(CommandAnswerTest, SuccessIsEmpty) {
  const CommandResponse response = CommandSuccess();
  EXPECT_EQ(response.ByteSizeLong(), 0u);
  EXPECT_EQ(response.error().code(), 0);
  EXPECT_EQ(response.error().errmsg(), "");
  EXPECT_FALSE(response.has_data());
}

TEST(CommandAnswerTest, SuccessCarriesAReply) {
  bess::pb::Error reply;
  reply.set_code(7);
  const CommandResponse response = CommandSuccess(reply);
  EXPECT_EQ(response.error().code(), 0);
  bess::pb::Error unpacked;
  ASSERT_TRUE(response.data().UnpackTo(&unpacked));
  EXPECT_EQ(unpacked.code(), 7);
}

TEST(CommandAnswerTest, FailureHasTheSystemsText) {
  EXPECT_EQ(CommandFailure(ENOMEM).error().code(), 12);
  EXPECT_EQ(CommandFailure(ENOMEM).error().errmsg(), "Cannot allocate memory");
  EXPECT_EQ(CommandFailure(-ENOMEM).error().code(), -12);
  EXPECT_EQ(CommandFailure(-ENOMEM).error().errmsg(), "Cannot allocate memory");
}

TEST(CommandAnswerTest, FailureFormatsItsText) {
  const CommandResponse response =
      CommandFailure(-1, "table %u: %s", 33, "Invalid table id");
  EXPECT_EQ(response.error().code(), -1);
  EXPECT_EQ(response.error().errmsg(), "table 33: Invalid table id");
  EXPECT_FALSE(response.has_data());
}

TEST(CommandAnswerTest, FailureTextHasNoLimit) {
  const std::string text(100000, 'x');
  EXPECT_EQ(CommandFailure(1, "%s", text.c_str()).error().errmsg(), text);
  EXPECT_EQ(CommandFailure(1, "%s", "").error().errmsg(), "");
}

}  // namespace
