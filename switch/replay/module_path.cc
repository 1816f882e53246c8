// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/module_path.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace ofswitch {
namespace {

namespace fs = std::filesystem;

constexpr char kLibrary[] = "libOpenFlowModule.so";

// OFSWITCH_LIBDIR is the installation's library directory as seen from its
// program directory, so that an installation can be moved as a whole.
std::vector<fs::path> places() {
  const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
  return {here / kLibrary,
          (here / "../modules/openflow" / kLibrary).lexically_normal(),
          (here / OFSWITCH_LIBDIR / kLibrary).lexically_normal()};
}

}  // namespace

std::string findModule(const std::string& given) {
  const char* fromEnvironment = getenv("OFSWITCH_MODULE");
  for (const std::string& path :
       {given, std::string(fromEnvironment ? fromEnvironment : "")}) {
    if (!path.empty()) {
      std::error_code error;
      const fs::path file = fs::canonical(path, error);
      if (error) {
        throw std::runtime_error(fmt::format("{}: {}", path, error.message()));
      }
      return file;
    }
  }
  std::vector<std::string> tried;
  for (const fs::path& path : places()) {
    if (fs::exists(path)) {
      return path;
    }
    tried.push_back(path);
  }
  throw std::runtime_error(
      fmt::format("{} is not in {}: name it with --module or OFSWITCH_MODULE",
                  kLibrary, fmt::join(tried, ", ")));
}

}  // namespace ofswitch
