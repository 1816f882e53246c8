// SPDX-License-Identifier: BSD-3-Clause
//
// What a fuzzer's input is read with, and how it says that something is wrong.
//
// A fuzzer is one file that defines LLVMFuzzerTestOneInput. Built with clang
// and the "fuzz" preset it is a libFuzzer program; in every other build
// corpus_runner.cc drives it over its kept samples and a few thousand
// mutations of them.
#pragma once

#include <fmt/core.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace openflow_fuzz {

// Ends the process, which is how a fuzzer reports; its driver then names the
// input.
template <class... Args>
[[noreturn]] void fail(fmt::format_string<Args...> format, Args&&... args) {
  fmt::print(stderr, "{}\n", fmt::format(format, std::forward<Args>(args)...));
  std::abort();
}

// Takes values off the front of an input; behind its end everything is zero.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), left_(size) {}

  size_t left() const { return left_; }
  bool empty() const { return left_ == 0; }

  // The next bytes as a big-endian number.
  template <class Number>
  Number take() {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(Number); i++) value = value << 8 | byte();
    return static_cast<Number>(value);
  }

  // At most `size` bytes.
  std::string_view bytes(size_t size) {
    const size_t length = size < left_ ? size : left_;
    const std::string_view taken(reinterpret_cast<const char*>(at_), length);
    at_ += length;
    left_ -= length;
    return taken;
  }

  std::string_view rest() { return bytes(left_); }

 private:
  uint8_t byte() {
    if (left_ == 0) return 0;
    left_--;
    return *at_++;
  }

  const uint8_t* at_;
  size_t left_;
};

}  // namespace openflow_fuzz
