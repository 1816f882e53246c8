// SPDX-License-Identifier: BSD-3-Clause
#include "dpdk_log.h"

#include <gtest/gtest.h>
#include <rte_log.h>

#include <cstdio>

namespace {

void Say(const char* text) {
  rte_log(RTE_LOG_ERR, RTE_LOGTYPE_USER1, "%s", text);
}

TEST(DpdkLogCaptureTest, SummarisesWhatDriversSay) {
  const bess::DpdkLogCapture log;
  EXPECT_EQ(log.Summary(), "");
  Say("net_a: has no cable\n");
  Say("EAL: Driver cannot attach the device\n");
  Say("\n");
  Say("net_a: gives up\n");
  EXPECT_EQ(log.Summary(), "net_a: has no cable; net_a: gives up");
}

TEST(DpdkLogCaptureTest, GivesBackTheStreamThatItFound) {
  FILE* const own = tmpfile();
  ASSERT_NE(own, nullptr);
  rte_openlog_stream(own);
  { const bess::DpdkLogCapture log; }
  EXPECT_EQ(rte_log_get_stream(), own);
  rte_openlog_stream(nullptr);
  fclose(own);
}

TEST(DpdkLogCaptureTest, EndsWithItsScope) {
  FILE* const before = rte_log_get_stream();
  {
    const bess::DpdkLogCapture log;
    EXPECT_NE(rte_log_get_stream(), before);
    Say("net_a: has no cable\n");
  }
  EXPECT_EQ(rte_log_get_stream(), before);
  const bess::DpdkLogCapture next;
  EXPECT_EQ(next.Summary(), "");
}

}  // namespace
