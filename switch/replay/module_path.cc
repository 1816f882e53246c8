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
constexpr char kVariable[] = "OFSWITCH_MODULE";

// OFSWITCH_LIBDIR is the installation's library directory as seen from its
// program directory, so that an installation can be moved as a whole.
std::vector<fs::path> places() {
  const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
  return {here / kLibrary,
          (here / "../modules/openflow" / kLibrary).lexically_normal(),
          (here / OFSWITCH_LIBDIR / kLibrary).lexically_normal()};
}

// `name` stands in errors.
std::string checked(const std::string& path, const std::string& name) {
  std::error_code error;
  const fs::path file = fs::canonical(path, error);
  if (error) {
    throw std::runtime_error(fmt::format("{}: {}", name, error.message()));
  }
  return file;
}

}  // namespace

std::string findModule(const std::string& given, const std::string& setting) {
  if (!given.empty()) return checked(given, given);
  const char* named = getenv(kVariable);
  if (named != nullptr && *named != '\0') {
    return checked(named, fmt::format("{}={}", kVariable, named));
  }
  std::vector<std::string> tried;
  for (const fs::path& path : places()) {
    if (fs::exists(path)) {
      return path;
    }
    tried.push_back(path);
  }
  throw std::runtime_error(fmt::format("{} is not in {}: name it with {} or {}",
                                       kLibrary, fmt::join(tried, ", "),
                                       setting, kVariable));
}

}  // namespace ofswitch
