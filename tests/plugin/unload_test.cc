// SPDX-License-Identifier: BSD-3-Clause
// The plug-in leaves the process when it is closed. It once stayed: g++ marks
// the static objects of templates as unique in the process, other libraries
// bound to its copies of standard templates, and either keeps a library loaded,
// with its class registered for ever.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "module.h"

namespace {

bool isRegistered() {
  return ModuleBuilder::all_module_builders().count("OpenFlow") == 1;
}

TEST(Plugin, IsGoneWhenItIsClosed) {
  for (int round = 0; round < 3; round++) {
    EXPECT_FALSE(isRegistered());
    void* plugin = dlopen(OPENFLOW_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(plugin, nullptr) << dlerror();
    EXPECT_TRUE(isRegistered());
    dlclose(plugin);
    EXPECT_FALSE(isRegistered());
    EXPECT_EQ(dlopen(OPENFLOW_PLUGIN, RTLD_NOW | RTLD_NOLOAD), nullptr);
  }
}

// Whether the class could be registered is not looked at: the library loads,
// and there is no class of it.
TEST(Plugin, LoadsWhereItsClassIsTaken) {
  const auto notThis = [](const std::string& className) {
    return ModuleBuilder::RegisterModuleClass(
        [] { return new Module; }, className, "taken", "taken by another", 1, 2,
        {}, MODULE_INIT_FUNC(&Module::Init));
  };
  ASSERT_TRUE(notThis("OpenFlow"));
  void* plugin = dlopen(OPENFLOW_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(plugin, nullptr) << dlerror();
  const ModuleBuilder& taken =
      ModuleBuilder::all_module_builders().at("OpenFlow");
  EXPECT_EQ(taken.help_text(), "taken by another");
  EXPECT_EQ(taken.NumOGates(), 2);
  EXPECT_TRUE(taken.cmds().empty());
  dlclose(plugin);
  EXPECT_EQ(dlopen(OPENFLOW_PLUGIN, RTLD_NOW | RTLD_NOLOAD), nullptr);
  ModuleBuilder::DeregisterModuleClass("OpenFlow");
}

}  // namespace
