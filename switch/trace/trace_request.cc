// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/trace_request.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "switch/flow/flow.h"
#include "switch/flow/match_parser.h"
#include "switch/flow/numbers.h"
#include "switch/flow/refused.h"
#include "switch/flow/words.h"
#include "switch/trace/key_fields.h"
#include "switch/trace/packet_builder.h"
#include "switch/trace/packet_key.h"
#include "switch/trace/table_probe.h"

namespace ofswitch {
namespace {

constexpr size_t kMaxText = 4096;

// What a packet's text says.
struct Description {
  Match match;
  std::optional<uint8_t> table;
};

bool isAboutFlows(std::string_view key) {
  constexpr std::string_view kWords[] = {"priority",     "cookie",
                                         "idle_timeout", "hard_timeout",
                                         "actions",      "out_port"};
  return std::ranges::find(kWords, key) != std::end(kWords);
}

Description parseDescription(std::string_view text) {
  if (text.size() > kMaxText) {
    refuse("the packet's text has {} bytes; {} are enough for any packet",
           text.size(), kMaxText);
  }
  Description description;
  std::vector<Word> words;
  for (const Word& word : splitWords(text)) {
    if (isAboutFlows(word.key)) {
      refuse("{}: a packet has no {}", word.text, word.key);
    }
    if (word.key == "table") {
      if (description.table) refuse("{}: stands there twice", word.text);
      description.table = static_cast<uint8_t>(
          parseNumber(word.value, kNumTables - 1, word.text));
      continue;
    }
    words.push_back(word);
  }
  description.match = parseMatch(words);
  return description;
}

std::string portList(const std::vector<uint16_t>& ports) {
  if (ports.empty()) return "the switch has no ports";
  constexpr size_t kShown = 8;
  std::string text = ports.size() == 1 ? "port " : "ports ";
  for (size_t i = 0; i < std::min(kShown, ports.size()); i++) {
    text += fmt::format("{}{}", i == 0 ? "" : ", ", ports[i]);
  }
  return "the switch has " + text + (ports.size() > kShown ? ", ..." : "");
}

// The one of two places that names a number; both may, if they agree.
uint32_t oneOf(const char* name, std::optional<uint32_t> inText,
               uint32_t beside) {
  if (inText && beside != 0 && *inText != beside) {
    refuse("{}={} in the packet's text, but {} was asked for", name, *inText,
           beside);
  }
  return inText.value_or(beside);
}

TracedPacket fromText(const pb::TraceRequest& request, uint32_t* inPort,
                      uint32_t* table) {
  const Description description = parseDescription(request.text());
  const Match& match = description.match;
  std::optional<uint32_t> port;
  if (!match.inPort.any()) port = match.inPort.value;
  *inPort = oneOf("in_port", port, request.in_port());
  *table = oneOf("table", description.table, request.table());
  TracedPacket packet;
  packet.frame = buildFrame(match);
  // What was built is what was asked for, or we do not say so.
  Match rest = match;
  rest.inPort = {};
  const Match key = packetKey(packet.frame, 0);
  const auto missed = differences(rest, key);
  if (!missed.empty()) {
    refuse(
        "{}: no frame with {}={} can be built from this text; give the "
        "packet as bytes in hexadecimal",
        request.text(), missed[0].name, missed[0].wanted);
  }
  return packet;
}

}  // namespace

TracedPacket readTraceRequest(const pb::TraceRequest& request,
                              const std::vector<uint16_t>& ports) {
  TracedPacket packet;
  uint32_t inPort = request.in_port();
  uint32_t table = request.table();
  switch (request.packet_case()) {
    case pb::TraceRequest::kText:
      packet = fromText(request, &inPort, &table);
      break;
    case pb::TraceRequest::kFrame:
      packet.frame = request.frame();
      break;
    default:
      refuse("no packet: give it as flow text or as bytes");
  }
  if (packet.frame.size() < kMinFrame || packet.frame.size() > kMaxFrame) {
    refuse("a frame has {} to {} bytes, this one {}", kMinFrame, kMaxFrame,
           packet.frame.size());
  }
  if (inPort == 0) {
    refuse("the packet comes in by no port: name one, in_port=PORT ({})",
           portList(ports));
  }
  if (inPort > kMaxPort) {
    refuse("in_port={}: ports are numbers from 1 to {}", inPort, kMaxPort);
  }
  if (table >= kNumTables) {
    refuse("table={}: tables are numbers from 0 to {}", table, kNumTables - 1);
  }
  packet.inPort = static_cast<uint16_t>(inPort);
  packet.table = static_cast<uint8_t>(table);
  return packet;
}

}  // namespace ofswitch
