// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace Ringlog {

inline constexpr size_t kMaxArguments = 16;

// An argument of a trace statement as the ring stores it: its kind and its raw
// value. Text is referred to, not owned.
class Argument {
 public:
  enum class Kind : uint8_t {
    kNone,
    kUnsigned,
    kSigned,
    kCharacter,
    kDouble,
    kPointer,
    kText,
    kCutText,  // the end of the text did not fit into the ring
  };

  template <class T>
  static Argument of(const T& value) {
    if constexpr (std::is_same_v<T, char>) {
      return {Kind::kCharacter, static_cast<unsigned char>(value)};
    } else if constexpr (std::is_enum_v<T>) {
      return of(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
      return {Kind::kSigned,
              static_cast<uint64_t>(static_cast<int64_t>(value))};
    } else if constexpr (std::is_integral_v<T>) {
      return {Kind::kUnsigned, static_cast<uint64_t>(value)};
    } else if constexpr (std::is_floating_point_v<T>) {
      return {Kind::kDouble,
              std::bit_cast<uint64_t>(static_cast<double>(value))};
    } else if constexpr (std::is_convertible_v<const T&, const char*>) {
      const char* text = value;
      return ofText(text == nullptr ? "(null)" : text);
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      return ofText(value);
    } else {
      static_assert(std::is_convertible_v<const T&, const void*>,
                    "a trace takes numbers, text, enumerators and pointers; "
                    "print anything else to a string first");
      const void* pointer = value;
      return {Kind::kPointer, reinterpret_cast<uintptr_t>(pointer)};
    }
  }

  static Argument ofText(std::string_view text, bool cut = false) {
    return {cut ? Kind::kCutText : Kind::kText, text.size(), text.data()};
  }

  Argument() : Argument(Kind::kNone, 0) {}
  Argument(Kind kind, uint64_t value, const char* text = nullptr)
      : kind_(kind), value_(value), text_(text) {}

  Kind kind() const { return kind_; }
  bool isText() const {
    return kind_ == Kind::kText || kind_ == Kind::kCutText;
  }
  uint64_t value() const { return value_; }  // of text: its length
  std::string_view text() const { return {text_, value_}; }

  void appendTo(std::string& out) const;

 private:
  Kind kind_;
  uint64_t value_;
  const char* text_;
};

// How many arguments a format takes.
constexpr size_t countPlaceholders(std::string_view format) {
  size_t count = 0;
  for (size_t i = 0; i + 1 < format.size(); i++) {
    if (format[i] == '%') {
      i++;
      count += format[i] == 's';
    }
  }
  return count;
}

// The format with its placeholders replaced: every "%s" by the next argument,
// whatever its type, and "%%" by "%". Integers and enumerators print as
// decimal numbers, bool as 0 or 1, pointers in hexadecimal.
std::string format(std::string_view format,
                   std::span<const Argument> arguments);

}  // namespace Ringlog
