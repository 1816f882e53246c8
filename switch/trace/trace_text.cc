// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/trace_text.h"

#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

namespace ofswitch {
namespace {

using Json = nlohmann::ordered_json;
using Reply = pb::TraceReply;

std::string hex(const std::string& bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    text += fmt::format("{:02x}", static_cast<uint8_t>(byte));
  }
  return text;
}

std::string plural(size_t count, std::string_view word) {
  return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

// A line of a step: its kind, then what there is to say.
void addLine(std::string_view kind, std::string_view what, std::string* text) {
  *text += fmt::format("  {:<8}{}\n", kind, what);
}

std::string fieldsText(
    const google::protobuf::RepeatedPtrField<Reply::Field>& fields) {
  std::string text;
  for (const Reply::Field& field : fields) {
    text += fmt::format("{}{}={}", text.empty() ? "" : ",", field.name(),
                        field.value());
  }
  return text;
}

// Where to find a flow again.
std::string identityText(const pb::FlowEntry& flow, bool ipv6) {
  std::string text =
      fmt::format("flow {}, cookie 0x{:x}, {} classifier", flow.flow_id(),
                  flow.cookie(), ipv6 ? "IPv6" : "IPv4");
  if (!flow.origin().empty()) text += ", " + flow.origin();
  return text;
}

void addNearMisses(const Reply::Step& step, std::string* text) {
  for (const Reply::NearMiss& near : step.near()) {
    addLine("near", near.flow().flow(), text);
    for (int i = 0; i < near.wanted_size(); i++) {
      addLine("",
              fmt::format("{} is {}, not {}", near.wanted(i).name(),
                          near.found(i).value(), near.wanted(i).value()),
              text);
    }
  }
}

void addStep(const Reply::Step& step, std::string* text) {
  *text += fmt::format("table {}\n", step.table());
  addLine("key", fieldsText(step.key()), text);
  if (step.has_flow()) {
    addLine("match", step.flow().flow(), text);
    addLine("", identityText(step.flow(), step.ipv6_classifier()), text);
  } else {
    addLine("match", "none", text);
  }
  addNearMisses(step, text);
  for (const Reply::Rewrite& rewrite : step.rewrites()) {
    addLine("set",
            fmt::format("{} {} -> {}", rewrite.field(), rewrite.before(),
                        rewrite.after()),
            text);
  }
  for (const std::string& output : step.outputs()) {
    addLine("output", output, text);
  }
  for (const std::string& note : step.notes()) addLine("note", note, text);
  if (step.has_goto_table()) {
    addLine("goto", fmt::format("table {}", step.goto_table()), text);
  }
  if (step.has_drop()) {
    addLine("drop",
            fmt::format("{}: {}", step.drop().name(), step.drop().sentence()),
            text);
  }
}

std::string gateText(const Reply::Output& output) {
  if (output.port() == 0) return "controller";
  return fmt::format("port {}{}", output.port(),
                     output.connected() ? "" : " (lost: there is none)");
}

// Gates that get the same bytes share a line: a flood stays readable.
void addOutputs(const Reply& reply, std::string* text) {
  if (reply.outputs_size() == 0) {
    *text += "nothing leaves the switch\n";
    return;
  }
  std::vector<const std::string*> frames;
  std::map<std::string_view, std::string> gates;
  for (const Reply::Output& output : reply.outputs()) {
    std::string& names = gates[output.frame()];
    if (names.empty()) frames.push_back(&output.frame());
    names += (names.empty() ? "" : ", ") + gateText(output);
  }
  for (const std::string* frame : frames) {
    *text += fmt::format("leaves by {}: {}\n  {}\n", gates[*frame],
                         plural(frame->size(), "byte"), hex(*frame));
  }
  if (reply.outputs_left_out() > 0) {
    *text += fmt::format("{} left out here\n",
                         plural(reply.outputs_left_out(), "more packet"));
  }
}

Json fieldsJson(const google::protobuf::RepeatedPtrField<Reply::Field>& all) {
  Json json = Json::object();
  for (const Reply::Field& field : all) json[field.name()] = field.value();
  return json;
}

Json flowJson(const pb::FlowEntry& flow) {
  Json json = {{"id", flow.flow_id()},        {"table", flow.table()},
               {"priority", flow.priority()}, {"cookie", flow.cookie()},
               {"match", flow.match()},       {"actions", Json::array()},
               {"flow", flow.flow()},         {"origin", flow.origin()}};
  for (const std::string& action : flow.actions()) {
    json["actions"].push_back(action);
  }
  return json;
}

Json nearJson(const Reply::NearMiss& near) {
  Json differences = Json::array();
  for (int i = 0; i < near.wanted_size(); i++) {
    differences.push_back({{"field", near.wanted(i).name()},
                           {"wanted", near.wanted(i).value()},
                           {"found", near.found(i).value()}});
  }
  return {{"flow", flowJson(near.flow())}, {"differs", differences}};
}

template <class Strings>
Json textsJson(const Strings& texts) {
  Json json = Json::array();
  for (const std::string& text : texts) json.push_back(text);
  return json;
}

Json stepJson(const Reply::Step& step) {
  Json json = {{"table", step.table()}, {"key", fieldsJson(step.key())}};
  if (step.has_flow()) {
    json["flow"] = flowJson(step.flow());
    json["classifier"] = step.ipv6_classifier() ? "ipv6" : "ipv4";
  } else {
    json["flow"] = nullptr;
    json["near"] = Json::array();
    for (const Reply::NearMiss& near : step.near()) {
      json["near"].push_back(nearJson(near));
    }
  }
  json["rewrites"] = Json::array();
  for (const Reply::Rewrite& rewrite : step.rewrites()) {
    json["rewrites"].push_back({{"field", rewrite.field()},
                                {"before", rewrite.before()},
                                {"after", rewrite.after()}});
  }
  json["outputs"] = textsJson(step.outputs());
  json["notes"] = textsJson(step.notes());
  if (step.has_goto_table()) json["goto_table"] = step.goto_table();
  if (step.has_drop()) {
    json["drop"] = {{"name", step.drop().name()},
                    {"sentence", step.drop().sentence()}};
  }
  return json;
}

}  // namespace

std::string traceText(const Reply& reply) {
  std::string text =
      fmt::format("packet of {} into port {}\n",
                  plural(reply.frame().size(), "byte"), reply.in_port());
  for (const Reply::Step& step : reply.steps()) addStep(step, &text);
  addOutputs(reply, &text);
  return text;
}

std::string traceJson(const Reply& reply) {
  Json json = {{"frame", hex(reply.frame())},
               {"in_port", reply.in_port()},
               {"steps", Json::array()},
               {"outputs", Json::array()},
               {"outputs_left_out", reply.outputs_left_out()}};
  for (const Reply::Step& step : reply.steps()) {
    json["steps"].push_back(stepJson(step));
  }
  for (const Reply::Output& output : reply.outputs()) {
    json["outputs"].push_back({{"port", output.port()},
                               {"connected", output.connected()},
                               {"frame", hex(output.frame())}});
  }
  return json.dump(2) + "\n";
}

}  // namespace ofswitch
