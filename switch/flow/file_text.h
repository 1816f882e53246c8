// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <istream>
#include <stdexcept>
#include <string>

namespace ofswitch {

// A line that names the file and says what is wrong with it.
struct FileError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// All that is left to read. `name` stands in errors. Throws FileError.
std::string readAll(std::istream& in, const std::string& name);
std::string readFile(const std::string& path);

}  // namespace ofswitch
