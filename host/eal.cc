// SPDX-License-Identifier: BSD-3-Clause
#include "eal.h"

#include <pthread.h>
#include <rte_eal.h>
#include <rte_errno.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "internal/stale_runtime_dirs.h"
#include "internal/transparent_hugepages.h"
#include "internal/wide_copy.h"
#include "ports/internal/device_string.h"

namespace bess {
namespace {

std::mutex mutex;
bool ready = false;
bool huge_pages = false;

// DPDK can be started only once, even when that failed.
bool attempted = false;

// Such as "0@(0,1,5)": one lcore, on every processor that the thread may use.
// The lcores of workers come later, with their threads.
std::string MainLcore(const cpu_set_t& cpus) {
  std::string list;
  for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
    if (CPU_ISSET(cpu, &cpus)) {
      list += (list.empty() ? "" : ",") + std::to_string(cpu);
    }
  }
  return "0@(" + list + ")";
}

std::vector<std::string> Arguments(const EalOptions& options,
                                   const cpu_set_t& cpus) {
  std::vector<std::string> args = {
      "bess",
      "--lcores",
      MainLcore(cpus),
      "-m",
      std::to_string(options.memory_mb),
      "--force-max-simd-bitwidth=" + std::to_string(options.max_simd_bits),
  };
  if (options.hugepages) {
    args.push_back("--in-memory");
  } else {
    args.insert(args.end(), {"--no-huge", "--no-shconf"});
  }
  if (options.telemetry.empty()) {
    args.push_back("--no-telemetry");
  } else {
    args.push_back("--file-prefix=" + options.telemetry +
                   std::to_string(getpid()));
  }
  bool has_card = false;
  for (const std::string& card : options.pci) {
    // One that is the kernel's is not touched; opening the port says so.
    if (internal::CheckDevice(internal::DeviceString(card)).empty()) {
      args.insert(args.end(), {"--allow", card});
      has_card = true;
    }
  }
  if (!has_card) {
    args.push_back("--no-pci");
  }
  if (options.quiet) {
    args.push_back("--log-level=*:error");
  }
  args.insert(args.end(), options.extra_args.begin(), options.extra_args.end());
  return args;
}

// Without hugepages DPDK takes any size, and the process then dies of it at the
// first touch of what is not there.
std::string CheckMemory(const EalOptions& options) {
  const size_t machine_mb = (static_cast<size_t>(sysconf(_SC_PHYS_PAGES)) *
                             static_cast<size_t>(sysconf(_SC_PAGESIZE))) >>
                            20;
  if (options.hugepages || options.memory_mb <= machine_mb) {
    return "";
  }
  return std::to_string(options.memory_mb) +
         " MB of memory for packets, flows and classifiers: the machine has " +
         std::to_string(machine_mb) + " MB";
}

// DPDK makes the directory, and removes its socket from there, but leaves it.
void RemoveRuntimeDir() { rmdir(rte_eal_get_runtime_dir()); }

}  // namespace

std::string InitEal(const EalOptions& options) {
  const std::lock_guard lock(mutex);
  if (ready) {
    return "";
  }
  if (attempted) {
    return "DPDK cannot be started a second time after a failure";
  }
  if (std::string error = CheckMemory(options); !error.empty()) {
    return error;
  }
  cpu_set_t cpus;
  if (const int error =
          pthread_getaffinity_np(pthread_self(), sizeof(cpus), &cpus)) {
    return std::string("cannot read the processor affinity: ") +
           rte_strerror(error);
  }
  // DPDK keeps pointers into the arguments and permutes the array.
  static std::vector<std::string> args;
  static std::vector<char*> argv;
  args = Arguments(options, cpus);
  for (std::string& arg : args) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  attempted = true;
  if (!options.telemetry.empty()) {
    // Before DPDK's own, so that it runs after them.
    atexit(RemoveRuntimeDir);
  }
  if (rte_eal_init(static_cast<int>(args.size()), argv.data()) < 0) {
    std::string text = "DPDK does not start with";
    for (const std::string& arg : args) {
      text += " " + arg;
    }
    text += std::string(": ") + rte_strerror(rte_errno);
    if (rte_errno == ENOMEM) {
      text += options.hugepages ? "; are there enough free hugepages?"
                                : "; is there that much free memory?";
    }
    return text;
  }
  if (!options.telemetry.empty()) {
    internal::RemoveStaleRuntimeDirs(
        std::filesystem::path(rte_eal_get_runtime_dir()).parent_path(),
        options.telemetry);
  }
  internal::AllowWideCopies(options.max_simd_bits);
  huge_pages = options.hugepages;
  if (!options.hugepages && options.pci.empty() && !options.shareable) {
    huge_pages = internal::UseTransparentHugepages();
  }
  ready = true;
  return "";
}

bool EalReady() {
  const std::lock_guard lock(mutex);
  return ready;
}

bool HasHugePages() {
  const std::lock_guard lock(mutex);
  return huge_pages;
}

// Empty where the kernel cannot make them.
bool AllowsHugePages(std::string_view modes) {
  return !modes.empty() && modes.find("[never]") == std::string_view::npos;
}

std::string RuntimeDir() { return rte_eal_get_runtime_dir(); }

}  // namespace bess
