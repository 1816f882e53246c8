// SPDX-License-Identifier: BSD-3-Clause
// The plug-in leaves the process when it is closed. It once stayed: g++ marks
// the static objects of templates as unique in the process, other libraries
// bound to its copies of standard templates, and either keeps a library loaded,
// with its class registered for ever.
#include <dlfcn.h>
#include <gtest/gtest.h>

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

}  // namespace
