// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/json_places.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace ofswitch {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

// Takes every event and keeps nothing but the error.
struct ErrorFinder : nlohmann::json_sax<nlohmann::json> {
  std::optional<JsonError> error;

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(size_t position, const std::string&,
                   const nlohmann::json::exception&) override {
    // The position counts the characters read, the wrong one included.
    error = {position - 1, ""};
    return false;
  }
};

size_t skipBlanks(std::string_view text, size_t at) {
  return std::min(text.find_first_not_of(kBlanks, at), text.size());
}

// The end of the string whose opening quote stands at `at`.
size_t stringEnd(std::string_view text, size_t at) {
  for (at++; text[at] != '"'; at++) {
    if (text[at] == '\\') at++;
  }
  return at + 1;
}

// The end of the value that begins at `at`, inside of an array or an object.
size_t valueEnd(std::string_view text, size_t at) {
  int depth = 0;
  for (;;) {
    const char c = text[at];
    if (c == '"') {
      at = stringEnd(text, at);
      if (depth == 0) return at;
      continue;
    }
    if (depth == 0 && (c == ',' || c == ']' || c == '}' ||
                       kBlanks.find(c) != std::string_view::npos)) {
      return at;
    }
    at++;
    if (c == '[' || c == '{') depth++;
    if ((c == ']' || c == '}') && --depth == 0) return at;
  }
}

}  // namespace

std::optional<JsonError> findJsonError(std::string_view text) {
  ErrorFinder finder;
  nlohmann::json::sax_parse(text.begin(), text.end(), &finder);
  if (!finder.error) return std::nullopt;
  JsonError& error = *finder.error;
  if (error.offset >= text.size()) {
    error = {text.size(), "not JSON: the text ends too early"};
  } else {
    error.reason = fmt::format("not JSON: unexpected \"{}\"",
                               text.substr(error.offset, 1));
  }
  return finder.error;
}

std::vector<std::string_view> jsonElements(std::string_view array) {
  std::vector<std::string_view> elements;
  size_t at = skipBlanks(array, 0);
  if (at == array.size() || array[at] != '[') return elements;
  at = skipBlanks(array, at + 1);
  while (array[at] != ']') {
    const size_t end = valueEnd(array, at);
    elements.push_back(array.substr(at, end - at));
    at = skipBlanks(array, end);
    if (array[at] == ',') at = skipBlanks(array, at + 1);
  }
  return elements;
}

std::vector<std::pair<std::string_view, std::string_view>> jsonMembers(
    std::string_view object) {
  std::vector<std::pair<std::string_view, std::string_view>> members;
  size_t at = skipBlanks(object, 0);
  if (at == object.size() || object[at] != '{') return members;
  at = skipBlanks(object, at + 1);
  while (object[at] != '}') {
    const size_t keyEnd = stringEnd(object, at);
    const std::string_view key = object.substr(at + 1, keyEnd - at - 2);
    at = skipBlanks(object, keyEnd);  // the colon
    at = skipBlanks(object, at + 1);
    const size_t end = valueEnd(object, at);
    members.emplace_back(key, object.substr(at, end - at));
    at = skipBlanks(object, end);
    if (object[at] == ',') at = skipBlanks(object, at + 1);
  }
  return members;
}

std::optional<std::string_view> jsonMember(std::string_view object,
                                           std::string_view key) {
  for (const auto& [name, value] : jsonMembers(object)) {
    if (name == key) return value;
  }
  return std::nullopt;
}

}  // namespace ofswitch
