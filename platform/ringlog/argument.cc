// SPDX-License-Identifier: BSD-3-Clause
#include "platform/ringlog/argument.h"

#include <charconv>

namespace Ringlog {

namespace {

constexpr std::string_view kCutMark = "...[cut]";

template <class... T>
void appendChars(std::string& out, T... value) {
  char digits[32];
  const auto result = std::to_chars(digits, digits + sizeof(digits), value...);
  out.append(digits, result.ptr);
}

}  // namespace

void Argument::appendTo(std::string& out) const {
  switch (kind_) {
    case Kind::kNone:
      break;
    case Kind::kUnsigned:
      appendChars(out, value_);
      break;
    case Kind::kSigned:
      appendChars(out, static_cast<int64_t>(value_));
      break;
    case Kind::kCharacter:
      out.push_back(static_cast<char>(value_));
      break;
    case Kind::kDouble:
      appendChars(out, std::bit_cast<double>(value_));
      break;
    case Kind::kPointer:
      out.append("0x");
      appendChars(out, value_, 16);
      break;
    case Kind::kText:
      out.append(text());
      break;
    case Kind::kCutText:
      out.append(text()).append(kCutMark);
      break;
  }
}

std::string format(std::string_view format,
                   std::span<const Argument> arguments) {
  std::string out;
  size_t next = 0;
  for (size_t i = 0; i < format.size(); i++) {
    const char c = format[i];
    const char after = i + 1 < format.size() ? format[i + 1] : '\0';
    if (c == '%' && after == '%') {
      out.push_back('%');
      i++;
    } else if (c == '%' && after == 's' && next < arguments.size()) {
      arguments[next++].appendTo(out);
      i++;
    } else {
      out.push_back(c);
    }
  }
  return out;
}

}  // namespace Ringlog
