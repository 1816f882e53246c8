// SPDX-License-Identifier: BSD-3-Clause
//
// What the module's trace statements wrote, from the in-memory ring and as
// text.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace openflow_test {

// The statements that entered the ring since the object was made, oldest first,
// as far as the ring still has them.
class TraceMark {
 public:
  TraceMark();

  struct Entry {
    unsigned level;
    std::string text;
  };

  std::vector<Entry> entries(const std::string& facility = "OpenFlow") const;
  std::vector<std::string> texts(unsigned level) const;
  bool contains(const std::string& text) const;  // the whole text

 private:
  uint64_t position_;
};

// While it lives, sends the module's statements of the levels in `mask` (bit n
// for level n) to a list instead of standard error; restores the levels
// afterwards. One at a time.
class TextTrace {
 public:
  explicit TextTrace(uint32_t mask);
  ~TextTrace();
  TextTrace(const TextTrace&) = delete;
  TextTrace& operator=(const TextTrace&) = delete;

  std::vector<std::string> lines() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace openflow_test
