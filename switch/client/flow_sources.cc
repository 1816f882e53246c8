// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/flow_sources.h"

#include <fmt/format.h>

#include <iostream>
#include <sstream>
#include <utility>

#include "switch/flow/file_text.h"
#include "switch/flow/words.h"

namespace ofswitch {
namespace {

constexpr char kStandardInput[] = "standard input";
constexpr char kCommandLine[] = "command line";
constexpr char kSeparators[] = ", \t\r\n";

// Flow text is ASCII, and a message with anything but UTF-8 would not reach the
// switch. A backslash is in no flow, so that the switch refuses what this
// changes, and can quote it.
std::string asciiText(std::string_view text) {
  std::string ascii;
  ascii.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      ascii += c;
    } else {
      ascii += fmt::format("\\x{:02x}", byte);
    }
  }
  return ascii;
}

std::string_view withoutComment(std::string_view line) {
  return line.substr(0, line.find('#'));
}

}  // namespace

void FlowSources::addArgument(const std::string& text) {
  if (text == "-") {
    addFile(text);
    return;
  }
  arguments_++;
  add({fmt::format("{} {}", what_, arguments_), 0, true}, text);
}

void FlowSources::addFile(const std::string& path) {
  if (path == "-") {
    add({kStandardInput, 0, false},
        readAll(std::cin, kStandardInput, kFlowText));
    return;
  }
  add({path, 0, false}, readFile(path, kFlowText));
}

void FlowSources::add(Source source, std::string_view text) {
  std::string_view rest = withoutByteOrderMark(text);
  do {
    const size_t end = rest.find('\n');
    text_ += asciiText(withoutComment(rest.substr(0, end)));
    text_ += '\n';
    source.lines++;
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  } while (!rest.empty());
  sources_.push_back(std::move(source));
}

bool FlowSources::empty() const {
  return text_.find_first_not_of(kSeparators) == std::string::npos;
}

bool FlowSources::selectsAll() const {
  if (empty()) return true;
  std::istringstream lines(text_);
  std::string line;
  while (std::getline(lines, line)) {
    if (!trim(line).empty() &&
        line.find_first_not_of(kSeparators) == std::string::npos) {
      return true;
    }
  }
  return false;
}

void FlowSources::fill(pb::FlowChange* change) const {
  const bool isOneFile = sources_.size() == 1 && !sources_[0].isArgument;
  change->set_text(text_);
  change->set_text_name(isOneFile ? asciiText(sources_[0].name) : kCommandLine);
}

Diagnostic FlowSources::place(const pb::Diagnostic& diagnostic) const {
  size_t line = diagnostic.line();
  if (line == 0) return {diagnostic.name(), 0, diagnostic.reason()};
  for (const Source& source : sources_) {
    if (line <= source.lines) {
      const bool isAll = source.isArgument && source.lines == 1;
      return {source.name, isAll ? 0 : static_cast<int>(line),
              diagnostic.reason()};
    }
    line -= source.lines;
  }
  return {diagnostic.name(), static_cast<int>(diagnostic.line()),
          diagnostic.reason()};
}

}  // namespace ofswitch
