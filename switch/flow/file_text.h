// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>

#include "switch/flow/diagnostic.h"

namespace ofswitch {

// A line that names the file and says what is wrong with it.
struct FileError : std::runtime_error {
  explicit FileError(Diagnostic what)
      : std::runtime_error(what.text()), diagnostic(std::move(what)) {}

  Diagnostic diagnostic;
};

// More than people write. A device or a pipe can go on for ever.
struct TextLimits {
  size_t bytes;
  size_t line;  // of one line
};

// A large policy has a million flows.
inline constexpr TextLimits kFlowText = {size_t{1} << 30, size_t{1} << 20};
// Programs write JSON in one line.
inline constexpr TextLimits kJsonText = {size_t{1} << 30, SIZE_MAX};
// A configuration, a certificate.
inline constexpr TextLimits kSettingsText = {size_t{16} << 20, SIZE_MAX};

// All that is left to read. `name` stands in errors. Throws FileError.
std::string readAll(std::istream& in, const std::string& name,
                    const TextLimits& limits);
std::string readFile(const std::string& path, const TextLimits& limits);

}  // namespace ofswitch
