// SPDX-License-Identifier: BSD-3-Clause
#include "platform/ringlog/site.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/ringlog/ring.h"

namespace {

using Ringlog::internSite;
using Ringlog::Site;

TEST(Site, EqualStatementsAreOne) {
  const Site& site = internSite("Facility", 2, "function", "format %s");
  EXPECT_EQ(site.facility, "Facility");
  EXPECT_EQ(site.level, 2u);
  EXPECT_EQ(site.function, "function");
  EXPECT_EQ(site.format, "format %s");
  const size_t count = Ringlog::countSites();
  EXPECT_EQ(&internSite(std::string("Facility"), 2, "function", "format %s"),
            &site);
  EXPECT_EQ(Ringlog::countSites(), count);
  EXPECT_NE(&internSite("Other", 2, "function", "format %s"), &site);
  EXPECT_NE(&internSite("Facility", 3, "function", "format %s"), &site);
  EXPECT_NE(&internSite("Facility", 2, "other", "format %s"), &site);
  EXPECT_NE(&internSite("Facility", 2, "function", "format %%"), &site);
  EXPECT_EQ(Ringlog::countSites(), count + 4);
}

TEST(Site, ThreadsGetTheSame) {
  std::vector<const Site*> sites(4);
  std::vector<std::thread> threads;
  for (const Site*& site : sites) {
    threads.emplace_back([&site] {
      for (int i = 0; i < 1000; i++) {
        site = &internSite("Threads", 1, "f", std::to_string(i));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const Site* site : sites) {
    EXPECT_EQ(site, sites[0]);
  }
}

// Runs the plug-in's statement once; false when the plug-in stays loaded.
bool traceFromPlugin(unsigned number) {
  void* plugin = dlopen(TRACING_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    ADD_FAILURE() << dlerror();
    return false;
  }
  reinterpret_cast<void (*)(unsigned)>(dlsym(plugin, "traceFromPlugin"))(
      number);
  dlclose(plugin);
  return dlopen(TRACING_PLUGIN, RTLD_NOW | RTLD_NOLOAD) == nullptr;
}

TEST(Site, OutlivesAPluginAndIsFoundAgain) {
  const uint64_t start = Ringlog::Ring::instance().readSince(0).next;
  ASSERT_TRUE(traceFromPlugin(1));
  const size_t count = Ringlog::countSites();
  for (unsigned i = 2; i <= 5; i++) {
    ASSERT_TRUE(traceFromPlugin(i));
  }
  EXPECT_EQ(Ringlog::countSites(), count);
  const auto entries = Ringlog::Ring::instance().readSince(start).entries;
  ASSERT_EQ(entries.size(), 5u);
  for (unsigned i = 0; i < 5; i++) {
    EXPECT_EQ(entries[i].text, "plug-in says " + std::to_string(i + 1));
    EXPECT_EQ(entries[i].facility, "TracingPlugin");
    EXPECT_EQ(entries[i].level, 3u);
    EXPECT_EQ(entries[i].function, "traceFromPlugin");
  }
}

}  // namespace
