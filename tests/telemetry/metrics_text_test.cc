// SPDX-License-Identifier: BSD-3-Clause
// The reader of other tests must refuse what it is there to find.
#include "tests/telemetry/metrics_text.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace ofswitch {
namespace {

constexpr char kHead[] = "# HELP a_total About a.\n# TYPE a_total counter\n";

TEST(MetricsText, ReadsWhatIsRight) {
  const MetricsText text(std::string(kHead) +
                         "a_total{x=\"1\",y=\"q\\\"\\\\\\n\"} 3\n"
                         "a_total{x=\"2\"} 4.5e1\n"
                         "# HELP b About b.\n# TYPE b gauge\nb -1\n");
  EXPECT_EQ(text.families().at("a_total").help, "About a.");
  EXPECT_EQ(text.families().at("a_total").type, "counter");
  EXPECT_EQ(text.value("a_total", {{"y", "q\"\\\n"}}), 3);
  EXPECT_EQ(text.value("a_total", {{"x", "2"}}), 45);
  EXPECT_EQ(text.value("b"), -1);
  EXPECT_EQ(text.count("a_total"), 2);
  EXPECT_EQ(text.labelValues("a_total", "x"),
            (std::vector<std::string>{"1", "2"}));
  EXPECT_THROW(text.value("a_total"), std::runtime_error);
  EXPECT_THROW(text.value("b", {{"x", "1"}}), std::runtime_error);
}

TEST(MetricsText, RefusesWhatIsWrong) {
  for (const char* lines : {"a_total 1",
                            "a_total 1\na_total 2\n",
                            "a_total{x=\"1\",x=\"2\"} 1\n",
                            "a_total -1\n",
                            "a_total nan\n",
                            "a_total 1x\n",
                            "a_total\n",
                            "a_total  1\n",
                            "a_total{x=1} 1\n",
                            "a_total{x=\"1} 1\n",
                            "a_total{x=\"\\t\"} 1\n",
                            "a_total{1x=\"1\"} 1\n",
                            "b 1\n",
                            "\n",
                            "# HELP a_total Again.\n",
                            "# HELP b About b.\nb 1\n",
                            "# HELP b About b.\n# TYPE b counter\n",
                            "# HELP b_total About b.\n# TYPE b_total gauge\n",
                            "# HELP b About b.\n# TYPE c gauge\n",
                            "# HELP b About b.\n# TYPE b meter\n",
                            "# HELP b\n",
                            "# NOTE b c\n"}) {
    EXPECT_THROW(MetricsText(std::string(kHead) + lines), std::runtime_error)
        << lines;
  }
}

}  // namespace
}  // namespace ofswitch
