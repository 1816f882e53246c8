// SPDX-License-Identifier: BSD-3-Clause
#include "platform/twinlog/twinlog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/allocation_counter.h"

namespace {

using Ringlog::Ring;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

const Mio::TraceHandle& handle() {
  static const Mio::TraceHandle handle("TwinlogTest", 0);
  return handle;
}

class TwinlogTest : public testing::Test {
 protected:
  TwinlogTest() {
    Twinlog::removeSink(Twinlog::kStandardErrorSink);
    sink_ = Twinlog::addSink([this](const Twinlog::Message& message) {
      messages_.push_back(message.facility + "/" +
                          std::to_string(message.level) + " " +
                          message.function + " " + message.text);
    });
  }
  ~TwinlogTest() override {
    Twinlog::removeSink(sink_);
    Twinlog::addStandardErrorSink();
    Mio::setTraceLevels("TwinlogTest", 0);
  }

  // What has come into the ring since the test began.
  std::vector<std::string> ring() const {
    std::vector<std::string> texts;
    for (const auto& entry : Ring::instance().readSince(start_).entries) {
      texts.push_back(entry.text);
    }
    return texts;
  }

  const uint64_t start_ = Ring::instance().readSince(0).next;
  std::vector<std::string> messages_;
  Twinlog::SinkId sink_;
};

void traceAt2() { TWINLOG_TRACE(handle(), 2, "at 2: %s", 22); }

TEST_F(TwinlogTest, GoesToTheRingAlwaysAndToTextWhenEnabled) {
  traceAt2();
  EXPECT_THAT(ring(), ElementsAre("at 2: 22"));
  EXPECT_THAT(messages_, IsEmpty());

  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  traceAt2();
  TWINLOG_TRACE(handle(), 0, "at 0");
  EXPECT_THAT(ring(), ElementsAre("at 2: 22", "at 2: 22", "at 0"));
  EXPECT_THAT(messages_, ElementsAre("TwinlogTest/2 traceAt2 at 2: 22"));

  Mio::setTraceLevels("TwinlogTest", 1u << 0);
  traceAt2();
  EXPECT_THAT(messages_, ElementsAre("TwinlogTest/2 traceAt2 at 2: 22"));
}

TEST_F(TwinlogTest, TextAndRingSayTheSame) {
  Mio::setTraceLevels("TwinlogTest", 1u << 5);
  const uint8_t tableId = 31;
  enum { kIpv6 = 1 };
  TWINLOG_TRACE(handle(), 5, "tableId: %s, flowType: %s, name: %s, 100%%",
                tableId, kIpv6, std::string("table31-ipv6-1"));
  const std::string text =
      "tableId: 31, flowType: 1, name: table31-ipv6-1, 100%";
  EXPECT_THAT(ring(), ElementsAre(text));
  EXPECT_THAT(messages_, ElementsAre("TwinlogTest/5 TestBody " + text));
}

TEST_F(TwinlogTest, TextWithoutPlaceholdersIsAsItIs) {
  TWINLOG_TRACE(handle(), 2, "virtual void OpenFlow::DeInit(): ");
  EXPECT_THAT(ring(), ElementsAre("virtual void OpenFlow::DeInit(): "));
}

TEST_F(TwinlogTest, ComposedTextIsOneArgument) {
  TWINLOG_TRACE(handle(), 2, "%s", std::string("100% %s composed"));
  EXPECT_THAT(ring(), ElementsAre("100% %s composed"));
}

TEST_F(TwinlogTest, ArgumentsAreEvaluatedOnce) {
  int evaluated = 0;
  const auto next = [&] { return ++evaluated; };
  TWINLOG_TRACE(handle(), 2, "%s", next());
  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  TWINLOG_TRACE(handle(), 2, "%s", next());
  EXPECT_EQ(evaluated, 2);
  EXPECT_THAT(ring(), ElementsAre("1", "2"));
}

template <class T>
void traceFromTemplate(T value) {
  TWINLOG_TRACE(handle(), 2, "value: %s", value);
}

TEST_F(TwinlogTest, WorksInTemplatesBranchesAndLambdas) {
  traceFromTemplate(1);
  traceFromTemplate("text");
  if (ring().empty())
    TWINLOG_TRACE(handle(), 2, "not reached");
  else
    TWINLOG_TRACE(handle(), 2, "else");
  [] { TWINLOG_TRACE(handle(), 2, "lambda"); }();
  EXPECT_THAT(ring(), ElementsAre("value: 1", "value: text", "else", "lambda"));
}

TEST_F(TwinlogTest, TextIsNotCut) {
  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  const std::string text(10000, 'x');
  TWINLOG_TRACE(handle(), 2, "%s", text);
  EXPECT_THAT(messages_, ElementsAre("TwinlogTest/2 TestBody " + text));
  EXPECT_LT(ring().at(0).size(), text.size());
}

TEST_F(TwinlogTest, EverySinkGetsEveryMessageUntilRemoved) {
  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  int second = 0;
  const Twinlog::SinkId id =
      Twinlog::addSink([&](const Twinlog::Message&) { second++; });
  traceAt2();
  Twinlog::removeSink(id);
  traceAt2();
  EXPECT_EQ(second, 1);
  EXPECT_EQ(messages_.size(), 2u);
  Twinlog::removeSink(id);
  Twinlog::removeSink(4711);
}

TEST_F(TwinlogTest, ASinkMayTrace) {
  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  const Twinlog::SinkId id = Twinlog::addSink([&](const Twinlog::Message&) {
    TWINLOG_TRACE(handle(), 2, "from the sink");
  });
  traceAt2();
  Twinlog::removeSink(id);
  EXPECT_EQ(messages_.size(), 1u);
  EXPECT_THAT(ring(), ElementsAre("at 2: 22", "from the sink"));
}

// A statement of which the program has heard nothing yet.
void traceAnew() {
  TWINLOG_TRACE(handle(), 2, "a text that no string keeps in itself: %s", 1);
}

TEST_F(TwinlogTest, AStatementWithoutMemoryForItsPlaceIsLeftOut) {
  int refusals = 0;
  for (;; refusals++) {
    refuseAllocation(refusals);
    traceAnew();
    if (!wasAllocationRefused()) break;
    EXPECT_THAT(ring(), IsEmpty()) << refusals;
  }
  EXPECT_GE(refusals, 2) << "its text, and its place among all";
  const std::string text = "a text that no string keeps in itself: 1";
  EXPECT_THAT(ring(), ElementsAre(text));
  traceAnew();
  EXPECT_THAT(ring(), ElementsAre(text, text));
}

TEST_F(TwinlogTest, WithoutMemoryForItsTextTheRingAloneHasIt) {
  traceAt2();
  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  int refusals = 0;
  for (;; refusals++) {
    const size_t messages = messages_.size();
    refuseAllocation(refusals);
    TWINLOG_TRACE(handle(), 2, "%s", "a text that no string keeps in itself");
    if (!wasAllocationRefused()) break;
    EXPECT_EQ(messages_.size(), messages) << refusals;
  }
  EXPECT_GE(refusals, 2) << "the message, and what the sink makes of it";
  EXPECT_EQ(ring().size(), 2u + static_cast<size_t>(refusals));
  EXPECT_THAT(messages_, ElementsAre("TwinlogTest/2 TestBody a text that no "
                                     "string keeps in itself"));
}

TEST_F(TwinlogTest, OneLineOnStandardErrorByDefault) {
  Twinlog::addStandardErrorSink();
  Twinlog::addStandardErrorSink();
  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  testing::internal::CaptureStderr();
  traceAt2();
  TWINLOG_TRACE(handle(), 5, "not enabled");
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} "
                           "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} "
                           "TwinlogTest/2 at 2: 22\n"));
}

TEST_F(TwinlogTest, TheLineHasTheTimeOfThisPlace) {
  Twinlog::addStandardErrorSink();
  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  setenv("TZ", "TST-05:30", 1);
  tzset();
  const auto here = [] {
    const time_t now = time(nullptr) + 5 * 3600 + 30 * 60;
    tm utc;
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:", gmtime_r(&now, &utc));
    return std::string(text);
  };
  const std::string before = here();
  testing::internal::CaptureStderr();
  traceAt2();
  const std::string line = testing::internal::GetCapturedStderr();
  const std::string after = here();
  EXPECT_TRUE(line.starts_with(before) || line.starts_with(after)) << line;
  unsetenv("TZ");
  tzset();
}

TEST_F(TwinlogTest, SinksComeAndGoWhileOthersTrace) {
  Mio::setTraceLevels("TwinlogTest", 1u << 2);
  std::atomic<bool> done{false};
  std::vector<std::thread> tracers;
  for (int i = 0; i < 2; i++) {
    tracers.emplace_back([&] {
      while (!done) {
        traceAt2();
      }
    });
  }
  int late = 0;
  for (int i = 0; i < 200; i++) {
    bool removed = false;
    const Twinlog::SinkId id = Twinlog::addSink(
        [&](const Twinlog::Message&) { late += removed ? 1 : 0; });
    std::this_thread::yield();
    Twinlog::removeSink(id);
    removed = true;
  }
  done = true;
  for (std::thread& tracer : tracers) {
    tracer.join();
  }
  EXPECT_EQ(late, 0);
}

}  // namespace
