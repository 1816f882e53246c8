// SPDX-License-Identifier: BSD-3-Clause
#include "tests/control_door/random_requests.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string_view>

#include "openflow.pb.h"
#include "service.pb.h"
#include "switch.pb.h"

namespace ofswitch {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MessageFactory;
using google::protobuf::Reflection;

constexpr const char* kWords[] = {
    "",
    "openflow",
    "port1_in",
    "controller",
    "updateFlows",
    "setAclIds",
    "getStats",
    "OpenFlow",
    "actions=drop",
    "table=7,tcp,tp_dst=80,actions=output:3",
    "table=31,priority=65535,ipv6,actions=dec_ttl,output:3",
    ("table=3,ip,nw_dst=10.0.0.0/8,actions=goto_table:4\n"
     "table=4,actions=controller\n"),
    "table=3,actions=goto_table:3",
    "table=32,actions=drop",
    "in_port=1,tcp,nw_dst=10.0.0.5,tp_dst=80",
    "tcp_dst=99999999999999999999",
    "actions=output:8192,output:4294967296",
    "cookie=0x10/-1",
    "nw_src=10.0.0.0/33",
    "dl_dst=02:00:00:00:00:0g",
    "((((((((((",
    "%s%n%n%n",
    "\u00e4\u00f6\u00fc \U0001f600",
    "../../../../etc/passwd",
};

const Message& prototype(const char* type) {
  return *MessageFactory::generated_factory()->GetPrototype(
      DescriptorPool::generated_pool()->FindMessageTypeByName(type));
}

const char* requestType(const RawMethod& method) {
  static constexpr const char* kTypes[] = {"ofswitch.pb.FlowChange",
                                           "ofswitch.pb.FlowFilter",
                                           "ofswitch.pb.TablesRequest",
                                           "ofswitch.pb.PortsRequest",
                                           "ofswitch.pb.StatsRequest",
                                           "ofswitch.pb.LogRequest",
                                           "ofswitch.pb.LogLevels",
                                           "ofswitch.pb.TraceRequest",
                                           "bess.pb.EmptyArg",
                                           "bess.pb.EmptyArg",
                                           "bess.pb.EmptyArg",
                                           "bess.pb.GetModuleRequest",
                                           "bess.pb.ModuleCommandRequest",
                                           "bess.pb.EmptyArg",
                                           "bess.pb.EmptyArg",
                                           "bess.pb.EmptyArg"};
  static_assert(std::size(kTypes) == std::size(kMethods));
  const auto* found = std::ranges::find(
      kMethods, std::string_view(method.name),
      [](const RawMethod& one) { return std::string_view(one.name); });
  return kTypes[found - kMethods];
}

}  // namespace

RandomRequests::Request RandomRequests::next() {
  Request request;
  request.method = kMethods[below(std::size(kMethods))];
  // Now and then the request of another method.
  request.bytes =
      valid(chance(8) ? kMethods[below(std::size(kMethods))] : request.method);
  if (chance(3)) damage(&request.bytes);
  return request;
}

uint64_t RandomRequests::number() {
  static constexpr uint64_t kExtremes[] = {
      0,          1,          2,          31,         32,         63,
      64,         127,        128,        255,        256,        8191,
      8192,       65535,      65536,      (1u << 29), 0x7fffffff, 1u << 31,
      0xffffffff, 1ull << 32, 1ull << 63, ~0ull,      ~0ull - 1,  0x8000000001};
  return chance(3) ? random_() : kExtremes[below(std::size(kExtremes))];
}

std::string RandomRequests::text() {
  if (!chance(6)) return kWords[below(std::size(kWords))];
  std::string text(below(chance(20) ? 50'000 : 40), 'x');
  for (char& c : text) c = static_cast<char>(0x20 + below(0x5f));
  return text;
}

std::string RandomRequests::valid(const RawMethod& method) {
  const std::unique_ptr<Message> message(prototype(requestType(method)).New());
  fill(message.get(), 0);
  // Nobody waits for the end of a log that has none.
  if (auto* log = dynamic_cast<pb::LogRequest*>(message.get())) {
    log->set_follow(false);
  }
  return message->SerializeAsString();
}

void RandomRequests::fill(Message* message, int depth) {
  if (auto* any = dynamic_cast<google::protobuf::Any*>(message)) {
    static constexpr const char* kTypes[] = {
        "quil.pb.OpenFlowUpdateFlowsArg", "quil.pb.OpenFlowAclArg",
        "quil.pb.OpenFlowGetStatsArg", "ofswitch.pb.FlowChange"};
    const std::unique_ptr<Message> inside(
        prototype(kTypes[below(std::size(kTypes))]).New());
    if (depth < 5) fill(inside.get(), depth + 1);
    any->PackFrom(*inside);
    if (chance(4)) any->set_type_url("type.googleapis.com/" + text());
    if (chance(4)) any->set_value(text());
    return;
  }
  const Descriptor& type = *message->GetDescriptor();
  const Reflection& set = *message->GetReflection();
  for (int i = 0; i < type.field_count(); i++) {
    const FieldDescriptor* field = type.field(i);
    if (chance(2)) continue;
    const uint32_t count = field->is_repeated() ? below(4) : 1;
    for (uint32_t n = 0; n < count; n++) {
      const bool many = field->is_repeated();
      switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_MESSAGE:
          if (depth < 5) {
            fill(many ? set.AddMessage(message, field)
                      : set.MutableMessage(message, field),
                 depth + 1);
          }
          break;
        case FieldDescriptor::CPPTYPE_STRING:
          many ? set.AddString(message, field, text())
               : set.SetString(message, field, text());
          break;
        case FieldDescriptor::CPPTYPE_BOOL:
          set.SetBool(message, field, chance(2));
          break;
        case FieldDescriptor::CPPTYPE_UINT32: {
          const auto value = static_cast<uint32_t>(number());
          many ? set.AddUInt32(message, field, value)
               : set.SetUInt32(message, field, value);
          break;
        }
        case FieldDescriptor::CPPTYPE_UINT64:
          set.SetUInt64(message, field, number());
          break;
        case FieldDescriptor::CPPTYPE_ENUM:
          set.SetEnumValue(message, field,
                           static_cast<int>(chance(8) ? number() : below(4)));
          break;
        default:
          break;
      }
    }
  }
}

void RandomRequests::damage(std::string* bytes) {
  for (uint32_t times = 1 + below(4); times > 0; times--) {
    const uint32_t at = below(static_cast<uint32_t>(bytes->size() + 1));
    const auto any = static_cast<char>(random_());
    switch (below(4)) {
      case 0:
        bytes->resize(at);
        break;
      case 1:
        bytes->insert(at, 1 + below(8), any);
        break;
      case 2:
        bytes->append(bytes->substr(at));
        break;
      default:
        if (at < bytes->size()) (*bytes)[at] = any;
    }
  }
}

}  // namespace ofswitch
