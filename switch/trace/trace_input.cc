// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/trace_input.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "modules/capture_reader.h"

namespace ofswitch {
namespace {

template <class... Args>
[[noreturn]] void fail(fmt::format_string<Args...> text, Args&&... args) {
  throw PacketArgumentError(fmt::format(text, std::forward<Args>(args)...));
}

bool isHexDigit(char c) {
  return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool isBetweenBytes(char c) { return c == ' ' || c == ':' || c == '\n'; }

// The digits of a text that is nothing but bytes.
std::optional<std::string> hexDigits(std::string_view text) {
  if (text.starts_with("0x")) text.remove_prefix(2);
  std::string digits;
  for (const char c : text) {
    if (isHexDigit(c)) {
      digits += c;
    } else if (!isBetweenBytes(c)) {
      return std::nullopt;
    }
  }
  if (digits.empty()) return std::nullopt;
  return digits;
}

std::string bytesOf(const std::string& digits) {
  if (digits.size() % 2 != 0) {
    fail("{} hexadecimal digits are no whole number of bytes", digits.size());
  }
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    uint8_t byte = 0;
    std::from_chars(&digits[i], &digits[i] + 2, byte, 16);
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

uint64_t frameNumber(std::string_view text, const std::string& argument) {
  uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, number);
  if (text.empty() || error != std::errc() || at != end || number == 0) {
    fail("{}: behind # stands the number of a frame, counted from 1", argument);
  }
  return number;
}

void readCapture(const std::string& path, uint64_t number,
                 PacketArgument* packet) {
  bess::CaptureReader reader(path);
  bess::CapturedFrame frame;
  while (reader.Next(&frame)) {
    if (reader.frames() != number) continue;
    packet->request.set_frame(frame.bytes, frame.len);
    if (frame.wire_len > frame.len) {
      packet->note =
          fmt::format("{}: frame {} was captured in part, {} of {} bytes", path,
                      number, frame.len, frame.wire_len);
    }
    return;
  }
  throw std::runtime_error(
      !reader.error().empty()
          ? reader.error()
          : fmt::format("{}: there is no frame {}, the file has {}", path,
                        number, reader.frames()));
}

}  // namespace

PacketArgument readPacketArgument(const std::string& text) {
  PacketArgument packet;
  if (const size_t mark = text.rfind('#'); mark != std::string::npos) {
    readCapture(text.substr(0, mark),
                frameNumber(std::string_view(text).substr(mark + 1), text),
                &packet);
  } else if (const auto digits = hexDigits(text)) {
    packet.request.set_frame(bytesOf(*digits));
  } else if (text.ends_with(".pcap") || text.ends_with(".pcapng")) {
    fail("{}: say which frame of the file, {}#1 for the first", text, text);
  } else {
    packet.request.set_text(text);
  }
  return packet;
}

}  // namespace ofswitch
