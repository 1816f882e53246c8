// SPDX-License-Identifier: BSD-3-Clause
#include "plugin.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "probe.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

const ModuleBuilder* Find(const std::string& name) {
  const auto& builders = ModuleBuilder::all_module_builders();
  const auto it = builders.find(name);
  return it != builders.end() ? &it->second : nullptr;
}

bool InMemory(const char* path) {
  void* handle = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

class PluginTest : public HostTest {};

TEST_F(PluginTest, LoadsUnloadsAndLoadsAgain) {
  for (int round = 0; round < 3; round++) {
    ASSERT_EQ(bess::LoadPlugin(GOOD_PLUGIN), "");
    ASSERT_NE(Find("Good"), nullptr);
    EXPECT_EQ(Find("Good")->help_text(), "comes and goes");
    const auto plugins = bess::ListPlugins();
    ASSERT_EQ(plugins.size(), 1u);
    EXPECT_EQ(plugins[0].path, std::filesystem::canonical(GOOD_PLUGIN));
    EXPECT_THAT(plugins[0].classes, ElementsAre("Good"));
    EXPECT_EQ(bess::CreateModule("Good", "g").response.error().code(), 0);
    EXPECT_EQ(bess::DestroyModule("g").error().code(), 0);
    ASSERT_EQ(bess::UnloadPlugin(GOOD_PLUGIN), "");
    EXPECT_EQ(Find("Good"), nullptr);
    EXPECT_FALSE(InMemory(GOOD_PLUGIN));
    EXPECT_TRUE(bess::ListPlugins().empty());
  }
}

TEST_F(PluginTest, InstancesKeepIt) {
  ASSERT_EQ(bess::LoadPlugin(GOOD_PLUGIN), "");
  bess::CreateModule("Good", "one");
  bess::CreateModule("Good", "two");
  EXPECT_THAT(bess::UnloadPlugin(GOOD_PLUGIN),
              HasSubstr("good_plugin.so: is in use by module one, two"));
  EXPECT_NE(Find("Good"), nullptr);
  EXPECT_TRUE(InMemory(GOOD_PLUGIN));
  bess::DestroyModule("one");
  bess::DestroyModule("two");
  EXPECT_EQ(bess::UnloadPlugin(GOOD_PLUGIN), "");
}

TEST_F(PluginTest, WaitsForItsDeferredCode) {
  for (int round = 0; round < 5; round++) {
    ASSERT_EQ(bess::LoadPlugin(GOOD_PLUGIN), "");
    bess::CreateModule("Good", "g");
    EXPECT_EQ(bess::RunModuleCommand("g", "defer").error().code(), 0);
    bess::DestroyModule("g");
    ASSERT_EQ(bess::UnloadPlugin(GOOD_PLUGIN), "");
  }
}

TEST_F(PluginTest, TwiceIsRefusedHoweverItIsWritten) {
  ASSERT_EQ(bess::LoadPlugin(GOOD_PLUGIN), "");
  EXPECT_THAT(bess::LoadPlugin(GOOD_PLUGIN), HasSubstr("is loaded already"));
  const std::filesystem::path path(GOOD_PLUGIN);
  const auto detour = path.parent_path() / "." / path.filename();
  EXPECT_THAT(bess::LoadPlugin(detour), HasSubstr("is loaded already"));
  EXPECT_EQ(bess::UnloadPlugin(GOOD_PLUGIN), "");
  EXPECT_THAT(bess::UnloadPlugin(GOOD_PLUGIN), HasSubstr("is not loaded"));
}

TEST_F(PluginTest, ATakenClassNameIsRefusedAndItsOwnerUnharmed) {
  ASSERT_EQ(bess::LoadPlugin(GOOD_PLUGIN), "");
  EXPECT_THAT(bess::LoadPlugin(TWIN_PLUGIN),
              HasSubstr("module class Good is registered already"));
  ASSERT_NE(Find("Good"), nullptr);
  EXPECT_EQ(Find("Good")->help_text(), "comes and goes");
  EXPECT_FALSE(InMemory(TWIN_PLUGIN));
  EXPECT_EQ(bess::UnloadPlugin(GOOD_PLUGIN), "");
  // Alone it is welcome.
  EXPECT_EQ(bess::LoadPlugin(TWIN_PLUGIN), "");
  EXPECT_EQ(Find("Good")->help_text(), "the other one");
  EXPECT_EQ(bess::UnloadPlugin(TWIN_PLUGIN), "");
}

bool Expect(bool condition, const char* what) {
  if (!condition) {
    fprintf(stderr, "not so: %s\n", what);
  }
  return condition;
}

// In a process of its own, which it never leaves.
TEST_F(PluginTest, OneThatIsMarkedToStayIsRefusedAndGoesOn) {
  const auto stays = [] {
    const std::string staying = std::filesystem::canonical(STAYING_PLUGIN);
    if (!Expect(bess::LoadPlugin(STAYING_PLUGIN) == "", "loads") ||
        !Expect(bess::LoadPlugin(GOOD_PLUGIN) == "", "so does another")) {
      return false;
    }
    const auto both = bess::ListPlugins();
    if (!Expect(both.size() == 2 && both[0].path == staying &&
                    both[0].classes == std::vector<std::string>{"Staying"} &&
                    both[1].classes == std::vector<std::string>{"Good"},
                "listed as they came, each with its own")) {
      return false;
    }
    bess::CreateModule("Staying", "s");
    bess::CreateModule("Good", "g");
    const std::string in_use = bess::UnloadPlugin(STAYING_PLUGIN);
    bess::DestroyModule("g");
    const std::string other_in_use = bess::UnloadPlugin(GOOD_PLUGIN);
    bess::DestroyModule("s");
    const std::string refused = bess::UnloadPlugin(STAYING_PLUGIN);
    const auto left = bess::ListPlugins();
    return Expect(in_use == staying + ": is in use by module s",
                  in_use.c_str()) &&
           Expect(other_in_use == "", other_in_use.c_str()) &&
           Expect(refused == staying +
                                 ": cannot be unloaded: the library is "
                                 "marked to stay",
                  refused.c_str()) &&
           Expect(left.size() == 1 && left[0].path == staying, "is listed") &&
           Expect(bess::CreateModule("Staying", "s").module != nullptr,
                  "works on") &&
           Expect(bess::UnloadPlugin(STAYING_PLUGIN) == in_use, "as ever");
  };
  EXPECT_EXIT(exit(stays() ? 0 : 1), testing::ExitedWithCode(0), "");
}

// Where it is searched for is the loader's business, whatever there is in the
// present directory.
TEST_F(PluginTest, ANameAloneIsLeftToTheLoader) {
  const std::string name = "plugin_test" + std::to_string(getpid()) + ".so";
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(testing::TempDir());
  std::ofstream(name) << "no library";
  EXPECT_THAT(bess::LoadPlugin(name), StartsWith(name + ": "));
  EXPECT_THAT(bess::LoadPlugin("./" + name),
              StartsWith(std::filesystem::canonical(name).string() + ": "));
  std::filesystem::remove(name);
  std::filesystem::current_path(before);
}

TEST_F(PluginTest, WhatIsNoPluginIsRefused) {
  EXPECT_THAT(bess::LoadPlugin("/nowhere/none.so"),
              HasSubstr("/nowhere/none.so: cannot open shared object file"));
  EXPECT_THAT(bess::LoadPlugin("/etc/passwd"), HasSubstr("/etc/passwd"));
  EXPECT_THAT(bess::LoadPlugin(EMPTY_PLUGIN),
              HasSubstr("registers no module class"));
  EXPECT_FALSE(InMemory(EMPTY_PLUGIN));
  // When it is loaded, and not once it is called.
  EXPECT_THAT(bess::LoadPlugin(UNRESOLVED_PLUGIN),
              HasSubstr("undefined symbol: nobody_has_this"));
  EXPECT_EQ(Find("Unresolved"), nullptr);
  EXPECT_TRUE(bess::ListPlugins().empty());
}

}  // namespace
