// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/flow_reader.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>
#include <utility>

#include "switch/flow/action_parser.h"
#include "switch/flow/action_plan.h"
#include "switch/flow/file_text.h"
#include "switch/flow/match_parser.h"
#include "switch/flow/numbers.h"
#include "switch/flow/refused.h"
#include "switch/flow/suggest.h"
#include "switch/flow/unsupported.h"
#include "switch/flow/words.h"

namespace ofswitch {
namespace {

// What "ovs-ofctl dump-flows" prints about a flow's past.
constexpr std::string_view kHistory[] = {"duration", "n_packets", "n_bytes",
                                         "idle_age", "hard_age"};

constexpr char kStandardInput[] = "standard input";

constexpr char kZeroByte[] = "a zero byte in the line; flow files are text";

bool hasZeroByte(std::string_view line) {
  return line.find('\0') != std::string_view::npos;
}

struct LineReader {
  const FlowReaderOptions& options;
  Flow flow;

  // Takes a word that is about the flow itself; false for a match field.
  bool takeOwnWord(const Word& word) {
    if (word.key == "table") {
      flow.table = static_cast<uint8_t>(tableNumber(word));
    } else if (word.key == "priority") {
      flow.priority = number16(word);
    } else if (word.key == "cookie") {
      flow.cookie = cookie(word);
    } else if (word.key == "idle_timeout") {
      flow.idleTimeout = timeout(word);
    } else if (word.key == "hard_timeout") {
      flow.hardTimeout = timeout(word);
    } else if (const auto reason = unsupportedFlag(word.key)) {
      refuse("{}: {}", word.text, *reason);
    } else {
      return std::ranges::find(kHistory, word.key) != std::end(kHistory);
    }
    return true;
  }

  static uint64_t tableNumber(const Word& word) {
    const auto table = toNumber(word.value);
    if (!table || *table >= kNumTables) {
      refuse("{}: tables are numbers from 0 to {}", word.text, kNumTables - 1);
    }
    return *table;
  }

  static uint16_t number16(const Word& word) {
    return static_cast<uint16_t>(parseNumber(word.value, 0xffff, word.text));
  }

  static uint64_t cookie(const Word& word) {
    if (word.value.find('/') != std::string_view::npos) {
      refuse("{}: a cookie mask selects flows, it cannot be added", word.text);
    }
    return parseNumber(word.value, ~uint64_t{0}, word.text);
  }

  uint16_t timeout(const Word& word) const {
    const uint16_t seconds = number16(word);
    if (seconds != 0 && !options.allowTimeouts) {
      refuse(
          "{}: a capture is replayed faster than its clock, so flows do not "
          "expire; leave it out",
          word.text);
    }
    return seconds;
  }
};

// A line without "actions=" is most often one with another spelling of it.
[[noreturn]] void refuseMissingActions(std::string_view line) {
  constexpr std::string_view kNames[] = {"actions"};
  for (const Word& word : splitWords(line)) {
    if (word.key == "actions" || word.key == "action") {
      refuse("{}: write \"actions=\" before the actions", word.text);
    }
    const std::string meant = suggest(word.key, kNames);
    if (!meant.empty()) refuse("unknown field \"{}\"{}", word.key, meant);
  }
  refuse("no actions; write actions=drop for a flow that drops");
}

// Where the action list begins: the word "actions=" or "action=".
std::pair<std::string_view, std::string_view> splitActions(
    std::string_view line) {
  for (size_t at = line.find("action"); at != std::string_view::npos;
       at = line.find("action", at + 1)) {
    if (at != 0 &&
        std::string_view(", \t").find(line[at - 1]) == std::string_view::npos) {
      continue;
    }
    const std::string_view rest = line.substr(at);
    for (const std::string_view name : {"actions=", "action="}) {
      if (rest.starts_with(name)) {
        return {line.substr(0, at), rest.substr(name.size())};
      }
    }
  }
  refuseMissingActions(line);
}

// Names that begin a line of "dump-flows" output before its flows.
bool isDumpHeading(std::string_view line) {
  return line.starts_with("NXST_FLOW reply") ||
         line.starts_with("OFPST_FLOW reply");
}

// Read once, because commands look at their files more than once.
const std::string& standardInput() {
  static const std::string text = readAll(std::cin, kStandardInput, kFlowText);
  return text;
}

}  // namespace

Flow FlowReader::readLine(std::string_view line) const {
  // Reasons that quote it would end there.
  if (hasZeroByte(line)) refuse(kZeroByte);
  const auto [head, actions] = splitActions(line);
  LineReader reader{options_, {}};
  std::vector<Word> fields;
  std::set<std::string_view> seen;
  for (const Word& word : splitWords(head)) {
    if (!reader.takeOwnWord(word)) {
      fields.push_back(word);
    } else if (!seen.insert(word.key).second) {
      refuse("{}: {} stands in the flow twice", word.text, word.key);
    }
  }
  Flow flow = std::move(reader.flow);
  flow.match = parseMatch(fields);
  const bool isTableMiss = flow.priority == 0 && flow.match == Match{};
  ParsedActions parsed = parseActions(
      actions, flow.match,
      isTableMiss ? ControllerReason::kNoMatch : ControllerReason::kAction);
  flow.actions = std::move(parsed.actions);
  planActions(flow, parsed.words);
  flow.text = trim(line);
  return flow;
}

FlowFile FlowReader::read(std::istream& in, const std::string& name) const {
  return read(in, name, 0);
}

FlowFile FlowReader::read(std::istream& in, const std::string& name,
                          uint64_t total) const {
  constexpr int kLinesPerProgress = 1024;
  FlowFile file;
  file.name = name;
  uint64_t done = 0;
  std::string text;
  for (int number = 1; std::getline(in, text); number++) {
    done += text.size() + 1;
    if (options_.progress && number % kLinesPerProgress == 0) {
      options_.progress(done, total);
    }
    std::string_view line = text;
    if (number == 1) line = withoutByteOrderMark(line);
    line = trim(line.substr(0, line.find('#')));
    if (line.empty() || isDumpHeading(line)) continue;
    // The rest of such a file says no more than its first line.
    if (hasZeroByte(line)) {
      file.refusals.push_back({name, number, kZeroByte});
      break;
    }
    try {
      if (file.flows.size() >= options_.mostFlows) {
        file.refusals.push_back(
            {name, number,
             fmt::format("at most {} flows are taken at once",
                         options_.mostFlows)});
        break;
      }
      if (text.size() > options_.longestLine) {
        refuse("the line has {} characters, at most {} are taken", text.size(),
               options_.longestLine);
      }
      Flow flow = readLine(line);
      flow.file = name;
      flow.line = number;
      file.flows.push_back(std::move(flow));
    } catch (const Refused& refused) {
      file.refusals.push_back({name, number, refused.what()});
      if (file.refusals.size() >= options_.mostRefusals) {
        file.refusals.push_back(
            {name, number, "too many lines are refused; the rest is not read"});
        break;
      }
    }
  }
  return file;
}

FlowFile FlowReader::read(const std::string& path) const {
  const bool isStandardInput = path == "-";
  try {
    const std::string text =
        isStandardInput ? standardInput() : readFile(path, kFlowText);
    const size_t total = text.size();
    std::istringstream in(text);
    return read(in, isStandardInput ? kStandardInput : path, total);
  } catch (const FileError& error) {
    return {error.diagnostic.file, {}, {error.diagnostic}};
  }
}

}  // namespace ofswitch
