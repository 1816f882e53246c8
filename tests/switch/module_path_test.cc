// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/module_path.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/captures/capture_files.h"

namespace ofswitch {
namespace {

using openflow_test::ScratchDir;
using testing::HasSubstr;
using testing::StartsWith;

std::string errorOf(const std::string& given) {
  try {
    findModule(given);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

// A program's own environment must not have it.
class ModulePath : public testing::Test {
 protected:
  ModulePath() { unsetenv("OFSWITCH_MODULE"); }
  ~ModulePath() override { unsetenv("OFSWITCH_MODULE"); }
};

TEST_F(ModulePath, IsWhatIsGivenBeforeWhatTheEnvironmentSays) {
  const ScratchDir dir;
  openflow_test::writeFile(dir / "given.so", "");
  openflow_test::writeFile(dir / "named.so", "");
  setenv("OFSWITCH_MODULE", (dir / "named.so").c_str(), 1);
  EXPECT_EQ(findModule(dir / "given.so"),
            std::filesystem::canonical(dir / "given.so"));
  EXPECT_EQ(findModule(""), std::filesystem::canonical(dir / "named.so"));
  EXPECT_EQ(errorOf(dir / "none.so"),
            (dir / "none.so").string() + ": No such file or directory");
  setenv("OFSWITCH_MODULE", "gone.so", 1);
  EXPECT_EQ(errorOf(""), "OFSWITCH_MODULE=gone.so: No such file or directory");
}

TEST_F(ModulePath, IsLookedForBesideTheProgramAndTellsWhere) {
  const std::filesystem::path here =
      std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::string error = errorOf("");
  setenv("OFSWITCH_MODULE", "", 1);
  EXPECT_EQ(errorOf(""), error) << "nothing is no name";
  EXPECT_THAT(
      error,
      StartsWith("libOpenFlowModule.so is not in " +
                 (here / "libOpenFlowModule.so").string() + ", " +
                 (here.parent_path() / "modules/openflow/libOpenFlowModule.so")
                     .string() +
                 ", /"));
  EXPECT_THAT(error, HasSubstr("/libOpenFlowModule.so: name it with --module "
                               "or OFSWITCH_MODULE"));
}

}  // namespace
}  // namespace ofswitch
