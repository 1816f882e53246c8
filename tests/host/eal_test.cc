// SPDX-License-Identifier: BSD-3-Clause
// Each test starts the EAL for the first time in its process.
// DPDK 22.11 still calls the question for the vector limit experimental.
#define ALLOW_EXPERIMENTAL_API
#include "eal.h"

#include <gtest/gtest.h>
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/captures/capture_files.h"

// The header leaves out that its function is C's.
extern "C" {
#include <rte_vect.h>
}

namespace {

// Runs `body` in a process of its own; it answers whether all went well.
template <typename F>
void InChild(F body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit(body() ? 0 : 1), testing::ExitedWithCode(0), "");
}

bool Expect(bool condition, const char* what) {
  if (!condition) {
    fprintf(stderr, "not so: %s\n", what);
  }
  return condition;
}

TEST(EalTest, StartsWithoutHugepagesAndOnlyOnce) {
  InChild([] {
    return Expect(!bess::EalReady(), "not ready before") &&
           Expect(bess::InitEal() == "", "starts") &&
           Expect(bess::EalReady(), "ready") &&
           Expect(bess::InitEal({.memory_mb = 1}) == "", "again is no error");
  });
}

TEST(EalTest, LeavesTheThreadWhereItMayRun) {
  InChild([] {
    cpu_set_t before;
    cpu_set_t after;
    sched_getaffinity(0, sizeof(before), &before);
    bess::InitEal();
    sched_getaffinity(0, sizeof(after), &after);
    return Expect(CPU_EQUAL(&before, &after), "same processors") &&
           Expect(rte_lcore_count() == 1, "one lcore, the rest for workers") &&
           Expect(rte_lcore_id() == 0, "this is it");
  });
}

TEST(EalTest, RaisesTheVectorLimit) {
  InChild([] {
    bess::InitEal();
    return Expect(rte_vect_get_max_simd_bitwidth() == 512, "512 bits");
  });
  InChild([] {
    bess::InitEal({.max_simd_bits = 128});
    return Expect(rte_vect_get_max_simd_bitwidth() == 128, "128 bits");
  });
}

TEST(EalTest, MemoryIsWhatWasAskedFor) {
  InChild([] {
    bess::InitEal({.memory_mb = 64});
    void* most = rte_malloc(nullptr, 48 << 20, 64);
    void* too_much = rte_malloc(nullptr, 48 << 20, 64);
    return Expect(most != nullptr, "48 MB") &&
           Expect(too_much == nullptr, "no more than 64 MB");
  });
}

TEST(EalTest, AnswersTelemetryOnlyWhenAsked) {
  InChild([] {
    bess::InitEal({.memory_mb = 64, .telemetry = "eal_test"});
    const std::filesystem::path dir = bess::RuntimeDir();
    return Expect(dir.filename() == "eal_test" + std::to_string(getpid()),
                  dir.c_str()) &&
           Expect(std::filesystem::is_socket(dir / "dpdk_telemetry.v2"),
                  "listens");
  });
  InChild([] {
    // A place of its own: other DPDK programs may listen in the usual one.
    const openflow_test::ScratchDir parent;
    setenv("RUNTIME_DIRECTORY", parent.path().c_str(), 1);
    bess::InitEal({.memory_mb = 64});
    return Expect(
        !std::filesystem::exists(std::filesystem::path(bess::RuntimeDir()) /
                                 "dpdk_telemetry.v2"),
        "does not listen");
  });
}

TEST(EalTest, LeavesNoRuntimeDirectoryBehind) {
  const openflow_test::ScratchDir parent;
  const pid_t child = fork();
  if (child == 0) {
    setenv("RUNTIME_DIRECTORY", parent.path().c_str(), 1);
    bess::InitEal({.memory_mb = 64, .telemetry = "eal_test"});
    const std::filesystem::path dir = bess::RuntimeDir();
    exit(dir.parent_path() == parent / "dpdk" && is_directory(dir) ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::filesystem::is_empty(parent / "dpdk"));
}

TEST(EalTest, SaysWhatIsWrong) {
  InChild([] {
    const std::string error =
        bess::InitEal({.extra_args = {"--no-such-option"}});
    return Expect(error.find("DPDK does not start with bess --lcores") == 0,
                  error.c_str()) &&
           Expect(error.find("--no-such-option: ") != std::string::npos,
                  error.c_str()) &&
           Expect(!bess::EalReady(), "not ready") &&
           Expect(bess::InitEal() ==
                      "DPDK cannot be started a second time after a failure",
                  "no second try");
  });
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
