// SPDX-License-Identifier: BSD-3-Clause
// Each test starts the EAL for the first time in its process.
// DPDK 22.11 still calls the question for the vector limit experimental.
#define ALLOW_EXPERIMENTAL_API
#include "eal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_eal.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "internal/wide_copy.h"
#include "packet_pool.h"
#include "ports/port.h"
#include "tests/captures/capture_files.h"
#include "tests/support/huge_pages.h"
#include "worker.h"

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

bool IsValid(const void* block, size_t size) {
  size_t real = 0;
  return rte_malloc_validate(block, &real) == 0 && real >= size;
}

bool Expect(bool condition, const char* what) {
  if (!condition) {
    fprintf(stderr, "not so: %s\n", what);
  }
  return condition;
}

TEST(EalTest, TellsWhereTheKernelMakesHugePages) {
  EXPECT_TRUE(bess::AllowsHugePages("[always] madvise never\n"));
  EXPECT_TRUE(bess::AllowsHugePages("always [madvise] never\n"));
  EXPECT_FALSE(bess::AllowsHugePages("always madvise [never]\n"));
  EXPECT_FALSE(bess::AllowsHugePages(""));
}

TEST(EalTest, StartsWithoutHugepagesAndOnlyOnce) {
  InChild([] {
    return Expect(!bess::EalReady(), "not ready before") &&
           Expect(bess::InitEal() == "", "starts") &&
           Expect(bess::EalReady(), "ready") &&
           Expect(bess::InitEal({.memory_mb = 1}) == "", "again is no error");
  });
}

TEST(EalTest, SeveralProcessesMayHaveIt) {
  InChild([] {
    const openflow_test::ScratchDir parent;
    setenv("RUNTIME_DIRECTORY", parent.path().c_str(), 1);
    int ends[2];
    if (pipe(ends) != 0) {
      return false;
    }
    const pid_t other = fork();
    if (other == 0) {
      const char failed = bess::InitEal({.memory_mb = 64}).empty() ? 0 : 1;
      const bool told = write(ends[1], &failed, 1) == 1;
      pause();
      _exit(told ? 0 : 1);
    }
    char failed = 1;
    const bool told = read(ends[0], &failed, 1) == 1;
    const std::string error = bess::InitEal({.memory_mb = 64});
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    return Expect(told && failed == 0, "the first starts") &&
           Expect(error == "", error.c_str());
  });
}

TEST(EalTest, NothingWorksBeforeItStarts) {
  InChild([] {
    return Expect(Worker::Add(3) == "worker 3: DPDK is not started",
                  "no worker") &&
           Expect(!Worker::Exists(3), "none is left") &&
           Expect(bess::OpenPort("a", {.device = "net_null0"}) ==
                      "port 'a', device 'net_null0': DPDK is not started",
                  "no port") &&
           Expect(bess::InitEal() == "", "starts afterwards") &&
           Expect(Worker::Add(3) == "", "a worker") &&
           Expect(bess::OpenPort("a", {.device = "net_null0"}) == "", "a port");
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
    return Expect(rte_vect_get_max_simd_bitwidth() == 512, "512 bits") &&
           Expect(bess::internal::wide_copies ==
                      (__builtin_cpu_supports("avx512f") != 0),
                  "copies as the processor can");
  });
  InChild([] {
    bess::InitEal({.max_simd_bits = 128});
    return Expect(rte_vect_get_max_simd_bitwidth() == 128, "128 bits") &&
           Expect(!bess::internal::wide_copies, "no wide copies");
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

// Whether the machine has any to give or not.
TEST(EalTest, HugepagesAreTakenOrMissed) {
  InChild([] {
    const std::string error =
        bess::InitEal({.memory_mb = 64, .hugepages = true});
    if (!error.empty()) {
      return Expect(error.starts_with("DPDK does not start with bess "),
                    error.c_str()) &&
             Expect(error.find(" --in-memory ") != std::string::npos,
                    error.c_str());
    }
    return Expect(rte_eal_has_hugepages() == 1, "DPDK has them") &&
           Expect(bess::HasHugePages(), "and says so");
  });
}

// What the kernel says of the mapping in which the byte lies.
std::string MappingOf(const void* byte) {
  const auto address = reinterpret_cast<uintptr_t>(byte);
  std::ifstream smaps("/proc/self/smaps");
  std::string text;
  bool inside = false;
  for (std::string line; std::getline(smaps, line);) {
    unsigned long from = 0;
    unsigned long to = 0;
    if (sscanf(line.c_str(), "%lx-%lx ", &from, &to) == 2) {
      inside = from <= address && address < to;
    }
    if (inside) {
      text += line + "\n";
    }
  }
  return text;
}

TEST(EalTest, MemoryWithoutHugepagesAsksForSuchAsTheKernelMakes) {
  InChild([] {
    bess::InitEal({.memory_mb = 64});
    auto* block = static_cast<char*>(rte_zmalloc(nullptr, 16 << 20, 64));
    const std::string mapping = MappingOf(block);
    const bool asks =
        mapping.find(" hg") != std::string::npos;  // among VmFlags
    const bool a_file = mapping.find("memfd:nohuge") != std::string::npos;
    return Expect(asks == openflow_test::kernelMakesHugePages(),
                  mapping.c_str()) &&
           Expect(a_file != asks, mapping.c_str()) &&
           Expect(bess::HasHugePages() == asks, "says so") &&
           Expect(block[0] == 0 && block[(16 << 20) - 1] == 0, "zeroed");
  });
}

// DPDK has written to its memory before it changes: what was there works on.
TEST(EalTest, MemoryKeepsItsContentWhenItsPagesChange) {
  InChild([] {
    bess::InitEal({.memory_mb = 64});
    rte_malloc_socket_stats before;
    rte_malloc_socket_stats after;
    rte_malloc_get_socket_stats(0, &before);
    void* block = rte_malloc(nullptr, 1 << 20, 64);
    const bool valid = IsValid(block, 1 << 20);
    rte_free(block);
    rte_malloc_get_socket_stats(0, &after);
    return Expect(before.heap_totalsz_bytes == size_t{64} << 20, "64 MB") &&
           Expect(valid, "a valid block") &&
           Expect(after.heap_freesz_bytes == before.heap_freesz_bytes,
                  "the heap is whole again");
  });
}

TEST(EalTest, ShareableMemoryStaysAFile) {
  InChild([] {
    bess::InitEal({.memory_mb = 64, .shareable = true});
    const std::string mapping = MappingOf(rte_malloc(nullptr, 1 << 20, 64));
    return Expect(mapping.find("memfd:nohuge") != std::string::npos,
                  mapping.c_str()) &&
           Expect(!bess::HasHugePages(), "says so");
  });
}

// DPDK would take a terabyte, and end the process by a signal.
TEST(EalTest, RefusesMoreMemoryThanTheMachineHas) {
  InChild([] {
    const std::string error = bess::InitEal({.memory_mb = 1 << 20});
    return Expect(error.starts_with("1048576 MB of memory for packets, flows "
                                    "and classifiers: the machine has "),
                  error.c_str()) &&
           Expect(error.ends_with(" MB"), error.c_str()) &&
           Expect(bess::InitEal({.memory_mb = 64}) == "", "less is possible");
  });
  InChild([] {
    const size_t all = (static_cast<size_t>(sysconf(_SC_PHYS_PAGES)) *
                        static_cast<size_t>(sysconf(_SC_PAGESIZE))) >>
                       20;
    const std::string error = bess::InitEal({.memory_mb = all + 1});
    return Expect(error == std::to_string(all + 1) +
                               " MB of memory for packets, flows and "
                               "classifiers: the machine has " +
                               std::to_string(all) + " MB",
                  error.c_str());
  });
}

TEST(EalTest, SaysWhenThereIsNotThatMuchMemory) {
  InChild([] {
    size_t pages = 0;  // that the process has mapped
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t most = pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) +
                        (size_t{1} << 30);  // for the program itself
    const rlimit little = {most, most};
    setrlimit(RLIMIT_AS, &little);
    const std::string error = bess::InitEal({.memory_mb = 1536});
    return Expect(error.ends_with(": Cannot allocate memory; is there that "
                                  "much free memory?"),
                  error.c_str());
  });
}

TEST(EalTest, IsQuietUnlessAskedForMore) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto starts = [](bool quiet) {
    exit(bess::InitEal({.memory_mb = 64, .quiet = quiet}).empty() ? 0 : 1);
  };
  EXPECT_EXIT(starts(true), testing::ExitedWithCode(0),
              testing::Not(testing::HasSubstr("EAL: Detected")));
  EXPECT_EXIT(starts(false), testing::ExitedWithCode(0),
              testing::HasSubstr("EAL: Detected"));
  // What has gone wrong is told all the same.
  const auto fails = [] {
    exit(bess::InitEal({.extra_args = {"--no-such-option"}}).empty() ? 1 : 0);
  };
  EXPECT_EXIT(fails(), testing::ExitedWithCode(0),
              testing::HasSubstr("EAL: Invalid 'command line' arguments"));
}

// As DPDK does with the cards that it is told of.
TEST(EalTest, WhatDpdkTookAtItsStartCanBecomeAPort) {
  InChild([] {
    bess::InitEal({.memory_mb = 64, .extra_args = {"--vdev=net_null7"}});
    if (!Expect(bess::PacketPool::MakeDefault(1023), "the first pool") ||
        !Expect(bess::PacketPool::Default()->capacity() == 1023, "is it")) {
      return false;
    }
    uint16_t id = 0;
    const bess::PortOptions options = {.device = "net_null7"};
    const std::string taken =
        "port 'b', device 'net_null7': the device is "
        "open already";
    for (int round = 0; round < 2; round++) {
      if (!Expect((rte_eth_dev_get_port_by_name("net_null7", &id) == 0) ==
                      (round == 0),
                  "there before, and gone once it was closed") ||
          !Expect(bess::OpenPort("a", options) == "", "opens") ||
          !Expect(bess::OpenPort("b", options) == taken, "only once") ||
          !Expect(bess::ClosePort("a") == "", "closes")) {
        return false;
      }
    }
    return true;
  });
}

TEST(EalTest, TheDefaultPoolIsMadeWhenItIsFirstAskedFor) {
  InChild([] {
    bess::InitEal({.memory_mb = 128});
    return Expect(bess::PacketPool::Default()->capacity() == 16383,
                  "as large as it says") &&
           Expect(!bess::PacketPool::MakeDefault(100), "and there to stay");
  });
}

TEST(EalTest, TakesNoCardThatIsNotAPort) {
  InChild([] {
    const std::string error =
        bess::InitEal({.memory_mb = 64, .pci = {"0000:fe:1f.7"}});
    return Expect(error == "", error.c_str()) &&
           Expect(rte_eal_has_pci() == 0, "does not even look for any");
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

// Such as a process that was killed has left; no process has that number.
TEST(EalTest, RemovesRuntimeDirectoriesThatNobodyHasAnyMore) {
  InChild([] {
    const openflow_test::ScratchDir parent;
    setenv("RUNTIME_DIRECTORY", parent.path().c_str(), 1);
    const std::filesystem::path dead = parent / "dpdk" / "eal_test99999998";
    std::filesystem::create_directories(dead);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, (dead / "dpdk_telemetry.v2").c_str(),
            sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const bool bound =
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return Expect(bound, "a socket") &&
           Expect(
               bess::InitEal({.memory_mb = 64, .telemetry = "eal_test"}) == "",
               "starts") &&
           Expect(!std::filesystem::exists(dead), "and clears away");
  });
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
