// SPDX-License-Identifier: BSD-3-Clause
#include "switch/telemetry/telemetry_dict.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/switch/live_bench.h"
#include "tests/telemetry/telemetry_client.h"

namespace {

// On the thread that answers.
thread_local bool hasMemory = true;
thread_local int givenBack = 0;

}  // namespace

// The program's own versions of DPDK's functions.
extern "C" void rte_tel_data_free(rte_tel_data* data) {
  using Free = decltype(&rte_tel_data_free);
  static const auto real =
      reinterpret_cast<Free>(dlsym(RTLD_NEXT, "rte_tel_data_free"));
  givenBack++;
  real(data);
}

extern "C" rte_tel_data* rte_tel_data_alloc() {
  using Alloc = decltype(&rte_tel_data_alloc);
  static const auto real =
      reinterpret_cast<Alloc>(dlsym(RTLD_NEXT, "rte_tel_data_alloc"));
  return hasMemory ? real() : nullptr;
}

namespace ofswitch {
namespace {

using nlohmann::json;

std::mutex mutex;
std::vector<size_t> sizes;  // of the answer, after each step

// What is gone of the 16,000 characters of an answer.
size_t size(const TelemetryDict& dict) {
  size_t more = 0;
  while (dict.hasRoom(more)) more++;
  return 16'000 - more;
}

int answer(const char*, const char*, rte_tel_data* data) {
  const std::lock_guard lock(mutex);
  TelemetryDict dict(data);
  sizes = {size(dict)};
  dict.number("ab", 7);
  sizes.push_back(size(dict));
  dict.text("cde", "xyz xyz");
  sizes.push_back(size(dict));
  dict.texts("list", std::vector<std::string>{"one", "three"});
  sizes.push_back(size(dict));
  dict.dict("inner", [](TelemetryDict* inner) {
    inner->number("n", UINT64_MAX);
    inner->text("t", "uv");
  });
  sizes.push_back(size(dict));
  return 0;
}

// A number takes 20 characters at most; a name, and a text, up to 6 more than
// they have.
TEST(TelemetryDict, CountsTheCharactersOfItsAnswer) {
  const LiveBench bench({.dpdkTelemetry = true});
  ASSERT_EQ(rte_telemetry_register_cmd("/test/dict", answer, "A test"), 0);
  EXPECT_EQ(TelemetryClient().ask("/test/dict"),
            json({{"ab", 7},
                  {"cde", "xyz xyz"},
                  {"list", {"one", "three"}},
                  {"inner", {{"n", UINT64_MAX}, {"t", "uv"}}}}));
  const size_t number = 2 + 6 + 20;
  const size_t text = number + 3 + 6 + 7;
  const size_t list = text + 4 + 6 + 3 + 6 + 5 + 6;
  const size_t inner = list + 5 + 6 + (1 + 6 + 20) + (1 + 6 + 2);
  const std::lock_guard lock(mutex);
  EXPECT_EQ(sizes, (std::vector<size_t>{0, number, text, list, inner}));
}

// While it lives, this thread gets no memory from DPDK.
class NoMemory {
 public:
  NoMemory() { hasMemory = false; }
  ~NoMemory() { hasMemory = true; }
  NoMemory(const NoMemory&) = delete;
  NoMemory& operator=(const NoMemory&) = delete;
};

int answerWithoutMemory(const char*, const char*, rte_tel_data* data) {
  const std::lock_guard lock(mutex);
  TelemetryDict dict(data);
  {
    const NoMemory none;
    dict.texts("list", std::vector<std::string>{"one"});
    dict.dict("inner",
              [](TelemetryDict*) { ADD_FAILURE() << "there is none"; });
  }
  sizes = {size(dict)};
  dict.number("ab", 7);
  return 0;
}

TEST(TelemetryDict, LeavesOutWhatThereIsNoMemoryFor) {
  const LiveBench bench({.dpdkTelemetry = true});
  ASSERT_EQ(
      rte_telemetry_register_cmd("/test/none", answerWithoutMemory, "A test"),
      0);
  EXPECT_EQ(TelemetryClient().ask("/test/none"), json({{"ab", 7}}));
  const std::lock_guard lock(mutex);
  EXPECT_EQ(sizes, std::vector<size_t>{0});
}

int answerTooMuch(const char*, const char*, rte_tel_data* data) {
  const std::lock_guard lock(mutex);
  TelemetryDict dict(data);
  givenBack = 0;
  for (int i = 0; i < 300; i++) {
    dict.dict("d" + std::to_string(i), [](TelemetryDict*) {});
  }
  sizes = {static_cast<size_t>(givenBack)};
  return 0;
}

// DPDK takes 256 of anything.
TEST(TelemetryDict, LeavesOutWhatIsTooMuchAndKeepsNothingOfIt) {
  const LiveBench bench({.dpdkTelemetry = true});
  ASSERT_EQ(rte_telemetry_register_cmd("/test/many", answerTooMuch, "A test"),
            0);
  const json answer = TelemetryClient().ask("/test/many");
  EXPECT_EQ(answer.size(), 256u);
  EXPECT_TRUE(answer.contains("d255"));
  const std::lock_guard lock(mutex);
  EXPECT_EQ(sizes, std::vector<size_t>{300 - 256});
}

}  // namespace
}  // namespace ofswitch
