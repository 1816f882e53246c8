// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/file_text.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace ofswitch {

std::string readAll(std::istream& in, const std::string& name) {
  try {
    std::string text((std::istreambuf_iterator<char>(in)), {});
    if (!in.bad()) return text;
  } catch (const std::ios_base::failure&) {  // so it is for a directory
  }
  throw FileError(
      fmt::format("{}: cannot be read: {}", name, std::strerror(errno)));
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw FileError(
        fmt::format("{}: cannot open: {}", path, std::strerror(errno)));
  }
  return readAll(in, path);
}

}  // namespace ofswitch
