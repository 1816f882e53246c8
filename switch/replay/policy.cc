// SPDX-License-Identifier: BSD-3-Clause
#include "switch/replay/policy.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <variant>

#include "switch/flow/command_list.h"
#include "switch/flow/flow_reader.h"
#include "switch/flow/id_allocator.h"
#include "switch/flow/translator.h"

namespace ofswitch {
namespace {

// What names a flow inside the module.
using RuleKey = std::tuple<uint32_t, int, uint32_t>;  // table, family, flowId

bool isCommandList(const std::string& file) { return file.ends_with(".json"); }

std::string placeOf(const Flow& flow) {
  return fmt::format("{}:{}", flow.file, flow.line);
}

class PolicyLoader {
 public:
  explicit PolicyLoader(std::vector<uint16_t> ports)
      : givenPorts_(std::move(ports)) {}

  Policy load(const std::vector<std::string>& files,
              const std::vector<uint16_t>& inputPorts) {
    readAll(files);
    choosePorts(inputPorts);
    FlowTranslator translator(policy_.ports, &ids_);
    for (const auto& source : sources_) {
      if (const auto* text = std::get_if<FlowFile>(&source)) {
        addText(*text, &translator);
      } else {
        addCommands(std::get<CommandList>(source));
      }
    }
    if (policy_.refusals.empty()) {
      listRules();
      for (const InstalledFlow* flow : translator.installed()) {
        describe(*flow);
      }
      describeOthers();
    }
    policy_.numCounters = ids_.numCounters();
    return std::move(policy_);
  }

 private:
  static void append(const std::vector<Diagnostic>& from,
                     std::vector<Diagnostic>* to) {
    to->insert(to->end(), from.begin(), from.end());
  }

  // All of them before any is translated: flows must not get an identifier that
  // a later command list has.
  void readAll(const std::vector<std::string>& files) {
    CommandListReader commandLists;
    for (const std::string& file : files) {
      if (isCommandList(file)) {
        CommandList list = commandLists.read(file);
        append(list.refusals, &policy_.refusals);
        reserveIds(list, &ids_);
        hasCommandLists_ = true;
        sources_.push_back(std::move(list));
      } else {
        FlowFile text = FlowReader().read(file);
        append(text.refusals, &policy_.refusals);
        sources_.push_back(std::move(text));
      }
    }
  }

  void choosePorts(const std::vector<uint16_t>& inputPorts) {
    std::set<uint16_t> ports(givenPorts_.begin(), givenPorts_.end());
    if (givenPorts_.empty()) {
      ports.insert(inputPorts.begin(), inputPorts.end());
      for (const auto& source : sources_) {
        const auto named =
            std::visit([](const auto& file) { return portsOf(file); }, source);
        ports.insert(named.begin(), named.end());
      }
    }
    ports.erase(0);  // the controller's, which is always there
    policy_.ports.assign(ports.begin(), ports.end());
  }

  static SwitchPorts portsOf(const FlowFile& text) {
    return portsNamedBy(text.flows);
  }

  static SwitchPorts portsOf(const CommandList& list) {
    SwitchPorts ports;
    for (const Command& command : list.commands) {
      if (const auto* update = std::get_if<TableUpdate>(&command.argument)) {
        for (const quil::pb::OpenFlowAddFlow& add : update->adds()) {
          for (const uint32_t gate : add.action().values().ogate()) {
            ports.push_back(static_cast<uint16_t>(gate));  // kMaxPort at most
          }
        }
      }
    }
    return ports;
  }

  // A text without flows means a table without flows, unless commands say what
  // the tables are to have.
  void addText(const FlowFile& text, FlowTranslator* translator) {
    if (text.flows.empty() && hasCommandLists_) return;
    Translation translation = translator->add(text.flows);
    append(translation.refusals, &policy_.refusals);
    append(translation.notes, &policy_.notes);
    for (const TableUpdate& update : translation.updates) {
      addCommand("updateFlows", update, text.name);
      noteUpdate(update, text.name);
    }
  }

  void addCommands(const CommandList& list) {
    for (const Command& command : list.commands) {
      const std::string where = fmt::format("{}:{}", list.name, command.line);
      if (const auto* given = std::get_if<TableUpdate>(&command.argument)) {
        TableUpdate update = *given;
        for (quil::pb::OpenFlowAddFlow& add : *update.mutable_adds()) {
          add.set_packetcounterid(ids_.takeCounter());
          add.set_bytecounterid(ids_.takeCounter());
        }
        addCommand(command.name(), update, where);
        noteUpdate(update, where);
      } else {
        addCommand(command.name(), command.message(), where);
      }
    }
  }

  void addCommand(const char* name, const google::protobuf::Message& message,
                  const std::string& where) {
    PolicyCommand command{name, {}, where};
    command.arg.PackFrom(message);
    policy_.commands.push_back(std::move(command));
  }

  void noteUpdate(const TableUpdate& update, const std::string& where) {
    for (const quil::pb::OpenFlowAddFlow& add : update.adds()) {
      InForce& flow =
          inForce_[{update.tableid(), update.flowtype(), add.flowid()}];
      flow.where = where;
      PolicyRule& rule = flow.rule;
      rule.table = static_cast<uint8_t>(update.tableid());
      rule.family = update.flowtype();
      rule.flowId = add.flowid();
      rule.priority = add.priority();
      rule.packetCounterId = add.packetcounterid();
      rule.byteCounterId = add.bytecounterid();
      rule.action = add.action();
    }
    for (const quil::pb::OpenFlowDeleteFlow& flow : update.deletes()) {
      inForce_.erase({update.tableid(), update.flowtype(), flow.flowid()});
    }
  }

  void listRules() {
    for (auto& [key, flow] : inForce_) {
      flow.index = policy_.rules.size();
      policy_.rules.push_back(flow.rule);
    }
  }

  void describe(const InstalledFlow& flow) {
    PolicyFlow described;
    if (flow.isTableMiss) {
      described.text =
          fmt::format("table={} has no flow: drop", unsigned{flow.flow.table});
    } else {
      described.text = flow.flow.text;
      described.where = placeOf(flow.flow);
    }
    const auto add = [&](const InstalledRule& rule, PolicyRule::Kind kind) {
      InForce& installed =
          inForce_.at({flow.flow.table, rule.family, rule.flowId});
      installed.described = true;
      policy_.rules[installed.index].kind = kind;
      described.rules.push_back(installed.index);
    };
    add(flow.rule, flow.isTableMiss ? PolicyRule::Kind::kEmptyTable
                                    : PolicyRule::Kind::kFlow);
    for (const InstalledRule& guard : flow.guards) {
      add(guard, PolicyRule::Kind::kGuard);
    }
    policy_.flows.push_back(std::move(described));
  }

  // The flows of command lists have no text but their message's.
  void describeOthers() {
    for (const auto& [key, flow] : inForce_) {
      if (!flow.described) {
        policy_.flows.push_back(
            {fmt::format("table={},{},flowId={},modulePriority={}",
                         unsigned{flow.rule.table},
                         flow.rule.family == quil::pb::OPENFLOW_TYPE_IPV6
                             ? "ipv6"
                             : "ipv4",
                         flow.rule.flowId, flow.rule.priority),
             flow.where,
             {flow.index}});
      }
    }
  }

  struct InForce {
    PolicyRule rule;
    std::string where;
    size_t index = 0;  // into policy_.rules
    bool described = false;
  };

  const std::vector<uint16_t> givenPorts_;
  bool hasCommandLists_ = false;
  IdAllocator ids_;
  std::vector<std::variant<FlowFile, CommandList>> sources_;
  std::map<RuleKey, InForce> inForce_;
  Policy policy_;
};

}  // namespace

Policy loadPolicy(const std::vector<std::string>& files,
                  const std::vector<uint16_t>& inputPorts,
                  const std::vector<uint16_t>& ports) {
  return PolicyLoader(ports).load(files, inputPorts);
}

}  // namespace ofswitch
