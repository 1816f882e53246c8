// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/module_command.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>

#include "control.h"
#include "graph.h"
#include "module.h"
#include "openflow.pb.h"
#include "switch/control/message_codec.h"
#include "switch/flow/command_checks.h"
#include "switch/flow/refused.h"

namespace ofswitch {
namespace {

using google::protobuf::Any;
using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::MessageFactory;

constexpr std::string_view kOpenFlowClass = "OpenFlow";

// "type.googleapis.com/quil.pb.OpenFlowAclArg" is "quil.pb.OpenFlowAclArg".
std::string_view typeName(std::string_view url) {
  return url.substr(url.rfind('/') + 1);
}

// Commands name their argument's type without its package.
bool isType(std::string_view name, std::string_view wanted) {
  return name == wanted ||
         (name.size() > wanted.size() && name.ends_with(wanted) &&
          name[name.size() - wanted.size() - 1] == '.');
}

// A module's handler takes what it cannot read for an empty argument.
void checkArgument(const Any& arg, const std::string& wanted) {
  const bool isEmpty = arg.type_url().empty() && arg.value().empty();
  if (isEmpty && (wanted.empty() || isType("EmptyArg", wanted))) return;
  const std::string name(typeName(arg.type_url()));
  if (!isType(name, wanted)) {
    refuse("arg: is of type \"{}\", must be \"{}\"", name.substr(0, 80),
           wanted);
  }
  const Descriptor* type =
      DescriptorPool::generated_pool()->FindMessageTypeByName(name);
  const google::protobuf::Message* prototype =
      type == nullptr ? nullptr
                      : MessageFactory::generated_factory()->GetPrototype(type);
  if (prototype == nullptr) {
    refuse("arg: there is no type \"{}\"", name.substr(0, 80));
  }
  // Nothing else can be unpacked.
  if (arg.type_url().find('/') == std::string::npos) {
    refuse("arg: is of type \"{0}\", must be \"type.googleapis.com/{0}\"",
           name);
  }
  checkFields(arg.value(), kLargeMessage, *type);
  const std::unique_ptr<google::protobuf::Message> message(prototype->New());
  if (!message->ParseFromString(arg.value())) {
    refuse("arg: its bytes are no {}", name);
  }
}

// The flows of the module are the switch's: it counts for each of them, ages
// them and keeps their numbers, none of which can be done for one that came
// from elsewhere.
void checkOwner(const bess::pb::ModuleCommandRequest& request) {
  if (request.command() == "updateFlows") {
    refuse(
        "updateFlows: the switch owns the flows of this module; change them "
        "by ofswitch.pb.Switch/ChangeFlows");
  }
  if (request.command() == "setAclIds") {
    refuse(
        "setAclIds: the switch owns the classifier slots of this module; they "
        "stay as they are");
  }
}

template <class T>
T unpack(const Any& any) {
  T message;
  if (!any.UnpackTo(&message)) {
    refuse("arg: must be \"{}\"", T::descriptor()->full_name());
  }
  return message;
}

CommandResponse run(const bess::pb::ModuleCommandRequest& request) {
  const Module* module = bess::FindModule(request.module());
  if (module != nullptr) {
    const ModuleBuilder& builder = *module->module_builder();
    const auto command =
        std::ranges::find(builder.cmds(), request.command(), &Command::cmd);
    // What is unknown is refused by the host.
    if (command != builder.cmds().end()) {
      const bool isOpenFlow = builder.class_name() == kOpenFlowClass;
      if (isOpenFlow) checkOwner(request);
      checkArgument(request.arg(), command->arg_type);
      if (isOpenFlow && request.command() == "getStats") {
        checkGetStats(unpack<quil::pb::OpenFlowGetStatsArg>(request.arg()));
      }
    }
  }
  return bess::RunModuleCommand(request.module(), request.command(),
                                request.arg());
}

}  // namespace

CommandResponse runModuleCommand(
    const bess::pb::ModuleCommandRequest& request) {
  CommandResponse response;
  // As one, so that the module that was looked at is the one that is asked.
  bess::ControlThread::Instance().Run([&] {
    try {
      response = run(request);
    } catch (const Refused& refused) {
      response = CommandFailure(EINVAL, "%s", refused.what());
    } catch (const BadMessage& bad) {
      response =
          CommandFailure(bad.isTooLong ? E2BIG : EINVAL, "arg: %s", bad.what());
    }
  });
  return response;
}

}  // namespace ofswitch
