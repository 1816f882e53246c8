// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/file_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>

namespace ofswitch {
namespace {

// A diagnostic about the last line of what was read.
FileError endless(const std::string& name, const std::string& text,
                  const std::string& reason) {
  return FileError({name, static_cast<int>(std::ranges::count(text, '\n')) + 1,
                    reason + "; no more is read"});
}

}  // namespace

std::string readAll(std::istream& in, const std::string& name,
                    const TextLimits& limits) {
  constexpr size_t kBlock = size_t{256} << 10;
  std::string text;
  size_t line = 0;  // where the last one begins
  while (in) {
    const size_t had = text.size();
    text.resize(had + kBlock);
    in.read(text.data() + had, kBlock);
    text.resize(had + static_cast<size_t>(in.gcount()));
    const size_t end = std::string_view(text).substr(had).rfind('\n');
    if (end != std::string_view::npos) line = had + end + 1;
    if (text.size() - line > limits.line) {
      throw endless(
          name, text,
          fmt::format("a line of more than {} characters", limits.line));
    }
    if (text.size() > limits.bytes) {
      throw endless(name, text,
                    fmt::format("more than {} MB of text", limits.bytes >> 20));
    }
  }
  if (in.bad()) {
    throw FileError(
        {name, 0, fmt::format("cannot be read: {}", std::strerror(errno))});
  }
  return text;
}

std::string readFile(const std::string& path, const TextLimits& limits) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw FileError(
        {path, 0, fmt::format("cannot open: {}", std::strerror(errno))});
  }
  return readAll(in, path, limits);
}

}  // namespace ofswitch
