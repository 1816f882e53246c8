// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_request.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <string_view>

#include "switch/flow/flow_reader.h"
#include "switch/flow/quote.h"
#include "switch/flow/refused.h"
#include "switch/flow/words.h"

namespace ofswitch {
namespace {

constexpr char kNoName[] = "request";

// As far beyond what people write as kMostFlows.
constexpr size_t kLongestName = 255;  // kept with each flow
constexpr size_t kLongestLine = size_t{256} << 10;
constexpr size_t kLongestReason = 500;
constexpr size_t kMostRefusals = 1000;
// Strict ones are looked up, others compared with every flow.
constexpr size_t kMostStrictFilters = 100'000;
constexpr size_t kMostFilters = 1000;

std::string requestName(const std::string& name) {
  if (name.empty()) return kNoName;
  if (name.size() <= kLongestName) return name;
  size_t begin = name.size() - kLongestName + 3;
  while (isInsideCharacter(name[begin])) begin++;
  return "..." + name.substr(begin);
}

void checkLine(size_t length) {
  if (length > kLongestLine) {
    refuse("the line has {} characters, at most {} are taken", length,
           kLongestLine);
  }
}

// Refuses what would be more than one word of flow text.
void checkWord(std::string_view what, std::string_view text,
               std::string_view separators) {
  const bool printable = std::ranges::all_of(
      text, [](unsigned char c) { return c > 0x20 && c < 0x7f; });
  if (!printable || text.find_first_of(separators) != std::string_view::npos) {
    refuse("{} \"{}\" is not one word of flow text", what, cutText(text, 80));
  }
}

// Joins the parts of a message to the text that says the same, so that one
// reader decides what can be taken.
class MessageText {
 public:
  explicit MessageText(const pb::FlowMessage& message) : message_(message) {}

  std::string filter() {
    if (message_.actions_size() > 0) {
      refuse("flows are not selected by their actions; use out_port");
    }
    if (message_.idle_timeout() != 0 || message_.hard_timeout() != 0) {
      refuse("flows are not selected by their timeouts");
    }
    common();
    if (message_.has_cookie() || message_.has_cookie_mask()) {
      add(fmt::format(
          "cookie=0x{:x}/0x{:x}", message_.cookie(),
          message_.has_cookie_mask() ? message_.cookie_mask() : ~uint64_t{0}));
    }
    if (message_.has_out_port()) {
      add(fmt::format("out_port={}", message_.out_port()));
    }
    return std::move(text_);
  }

  std::string flow() {
    if (message_.has_cookie_mask()) {
      refuse("a cookie mask selects flows, it cannot be added");
    }
    if (message_.has_out_port()) {
      refuse("out_port selects flows; an output is an action");
    }
    common();
    if (message_.has_cookie()) {
      add(fmt::format("cookie=0x{:x}", message_.cookie()));
    }
    add(fmt::format("idle_timeout={}", message_.idle_timeout()));
    add(fmt::format("hard_timeout={}", message_.hard_timeout()));
    if (message_.actions_size() == 0) {
      refuse("no actions; say \"drop\" for a flow that drops");
    }
    std::string actions;
    for (const std::string& action : message_.actions()) {
      checkWord("action", action, "");
      actions += (actions.empty() ? "" : ",") + action;
    }
    add("actions=" + actions);
    return std::move(text_);
  }

 private:
  void common() {
    if (message_.has_table()) add(fmt::format("table={}", message_.table()));
    if (message_.has_priority()) {
      add(fmt::format("priority={}", message_.priority()));
    }
    for (const pb::FlowMessage::Field& field : message_.match()) {
      checkWord("field", field.name(), ",=:()");
      checkWord("value", field.value(), ",()");
      if (field.name().empty()) refuse("a match field has no name");
      add(field.value().empty() ? field.name()
                                : field.name() + "=" + field.value());
    }
  }

  void add(const std::string& word) {
    if (!text_.empty()) text_ += ',';
    text_ += word;
  }

  const pb::FlowMessage& message_;
  std::string text_;
};

void readFlows(const pb::FlowChange& change, const std::string& name,
               size_t mostFlows, FlowRequest* request) {
  const FlowReader reader({.allowTimeouts = true,
                           .longestLine = kLongestLine,
                           .mostFlows = mostFlows,
                           .mostRefusals = kMostRefusals});
  std::istringstream text(change.text());
  FlowFile file = reader.read(text, name);
  request->flows = std::move(file.flows);
  request->refusals = std::move(file.refusals);
  int number = 0;
  for (const pb::FlowMessage& message : change.flows()) {
    number++;
    if (request->refusals.size() >= kMostRefusals) return;
    if (request->flows.size() >= mostFlows) {
      request->refusals.push_back(
          {name, number,
           fmt::format("at most {} flows are taken at once", mostFlows)});
      return;
    }
    try {
      const std::string line = MessageText(message).flow();
      checkLine(line.size());
      Flow flow = reader.readLine(line);
      flow.file = name;
      flow.line = number;
      request->flows.push_back(std::move(flow));
    } catch (const Refused& refused) {
      request->refusals.push_back({name, number, refused.what()});
    }
  }
}

void readFilters(const pb::FlowChange& change, const std::string& name,
                 FlowRequest* request) {
  const size_t most = change.strict() ? kMostStrictFilters : kMostFilters;
  // Answers false when enough is wrong.
  const auto read = [&](int number, const auto& filterText) {
    if (request->filters.size() >= most) {
      request->refusals.push_back(
          {name, number,
           fmt::format("at most {} filters are taken at once", most)});
      return false;
    }
    try {
      const std::string line = filterText();
      checkLine(line.size());
      request->filters.push_back(parseFlowFilter(line, change.strict()));
    } catch (const Refused& refused) {
      request->refusals.push_back({name, number, refused.what()});
    }
    return request->refusals.size() < kMostRefusals;
  };
  std::istringstream lines(change.text());
  std::string text;
  for (int number = 1; std::getline(lines, text); number++) {
    const std::string_view line =
        trim(std::string_view(text).substr(0, text.find('#')));
    if (!line.empty() && !read(number, [&] { return std::string(line); })) {
      return;
    }
  }
  int number = 0;
  for (const pb::FlowMessage& message : change.flows()) {
    if (!read(++number, [&] { return MessageText(message).filter(); })) return;
  }
  if (request->ok() && request->filters.empty()) {
    if (change.strict()) {
      request->refusals.push_back(
          {name, 0, "a strict deletion needs the match of its flow"});
    } else {
      request->filters.emplace_back();
    }
  }
}

}  // namespace

FlowRequest readFlowRequest(const pb::FlowChange& change, size_t mostFlows) {
  const std::string name = requestName(change.text_name());
  FlowRequest request;
  switch (change.operation()) {
    case pb::FLOW_OPERATION_ADD:
    case pb::FLOW_OPERATION_REPLACE:
      if (change.strict()) {
        request.refusals.push_back(
            {name, 0, "only a deletion can be strict or loose"});
      } else {
        readFlows(change, name, mostFlows, &request);
      }
      break;
    case pb::FLOW_OPERATION_DELETE:
      readFilters(change, name, &request);
      break;
    default:
      request.refusals.push_back(
          {name, 0, "the operation must be one of add, delete and replace"});
  }
  for (Diagnostic& refusal : request.refusals) {
    refusal.reason = cutText(refusal.reason, kLongestReason);
  }
  return request;
}

FlowFilter readFlowFilter(const pb::FlowFilter& filter) {
  if (!filter.has_flow())
    return parseFlowFilter(filter.text(), filter.strict());
  if (!filter.text().empty()) {
    refuse("a filter is given as text or as a message, not both");
  }
  return parseFlowFilter(MessageText(filter.flow()).filter(), filter.strict());
}

}  // namespace ofswitch
