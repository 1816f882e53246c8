// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/command_list.h"

#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <array>

#include "switch/flow/file_text.h"
#include "switch/flow/json_message_check.h"
#include "switch/flow/json_places.h"
#include "switch/flow/refused.h"
#include "switch/flow/suggest.h"

namespace ofswitch {
namespace {

// By index of Command::argument.
constexpr std::array<std::string_view, 3> kNames = {"updateFlows", "setAclIds",
                                                    "getStats"};

// A mistake at a place of the text.
struct RefusedPart {
  JsonMistake mistake;
};

template <class T>
T parseMessage(std::string_view json) {
  T message;
  if (auto mistake = findMistake(json, *T::descriptor())) {
    throw RefusedPart{std::move(*mistake)};
  }
  const auto status = google::protobuf::util::JsonStringToMessage(
      google::protobuf::StringPiece(json.data(), json.size()), &message);
  if (!status.ok()) {
    std::string reason(status.message());
    std::ranges::replace(reason, '\n', ' ');
    refuse("{}", reason);
  }
  return message;
}

// Reads one list.
class ListReader {
 public:
  ListReader(std::string_view text, const std::string& name,
             SlotBindings* bindings)
      : text_(text), bindings_(*bindings) {
    list_.name = name;
  }

  CommandList run() {
    if (const auto error = findJsonError(text_)) {
      refuseAt(text_.substr(error->offset), error->reason);
      return std::move(list_);
    }
    const size_t begin = text_.find_first_not_of(" \t\r\n");
    if (text_[begin] != '[') {
      refuseAt(text_.substr(begin), "a command list is an array: [...]");
      return std::move(list_);
    }
    for (const std::string_view element : jsonElements(text_)) {
      readCommand(element);
      index_++;
    }
    return std::move(list_);
  }

 private:
  void readCommand(std::string_view element) {
    const auto members = jsonMembers(element);
    try {
      if (members.size() != 1) {
        refuse(
            "write an object of one member, updateFlows, setAclIds or "
            "getStats");
      }
      const auto& [name, value] = members.front();
      const auto* known = std::ranges::find(kNames, name);
      if (known == kNames.end()) {
        refuse("unknown command \"{}\"{}", name, suggest(name, kNames));
      }
      command_ = std::string(name);
      switch (known - kNames.begin()) {
        case 0:
          readUpdate(value, element);
          break;
        case 1: {
          auto argument = parseMessage<quil::pb::OpenFlowAclArg>(value);
          bindings_.bind(argument);
          keep(std::move(argument), element);
          break;
        }
        default: {  // getStats
          auto argument = parseMessage<quil::pb::OpenFlowGetStatsArg>(value);
          checkGetStats(argument);
          keep(std::move(argument), element);
          break;
        }
      }
    } catch (const RefusedPart& refused) {
      refuseAt(refused.mistake.part, place() + refused.mistake.reason);
    } catch (const Refused& refused) {
      refuseAt(element, place() + refused.what());
    }
    command_.clear();
  }

  void readUpdate(std::string_view value, std::string_view element) {
    auto update = parseMessage<quil::pb::OpenFlowUpdateFlowsArg>(value);
    checkUpdate(update);
    const auto addsText = jsonMember(value, "adds");
    const std::vector<std::string_view> adds =
        addsText ? jsonElements(*addsText) : std::vector<std::string_view>();
    bool good = true;
    for (int i = 0; i < update.adds_size(); i++) {
      try {
        checkAdd(update.adds(i), update.tableid(), fmt::format("adds[{}]", i));
      } catch (const Refused& refused) {
        refuseAt(adds.at(static_cast<size_t>(i)), place() + refused.what());
        good = false;
      }
    }
    if (good) keep(std::move(update), element);
  }

  template <class T>
  void keep(T argument, std::string_view element) {
    list_.commands.push_back({std::move(argument), lineOf(element)});
  }

  std::string place() const {
    return command_.empty() ? fmt::format("command {}: ", index_)
                            : fmt::format("command {}: {}: ", index_, command_);
  }

  void refuseAt(std::string_view part, std::string reason) {
    list_.refusals.push_back(
        {list_.name, lineOf(part), std::move(reason), columnOf(part)});
  }

  int columnOf(std::string_view part) const {
    const auto offset = static_cast<size_t>(part.data() - text_.data());
    const size_t lineEnd =
        offset == 0 ? std::string_view::npos : text_.rfind('\n', offset - 1);
    return static_cast<int>(
        lineEnd == std::string_view::npos ? offset + 1 : offset - lineEnd);
  }

  // Parts come in the order of the text, so the newlines are counted once.
  int lineOf(std::string_view part) {
    const size_t offset = static_cast<size_t>(part.data() - text_.data());
    line_ += static_cast<int>(
        std::count(text_.begin() + counted_, text_.begin() + offset, '\n'));
    counted_ = offset;
    return line_;
  }

  std::string_view text_;
  SlotBindings& bindings_;
  CommandList list_;
  size_t index_ = 0;
  std::string command_;  // the name, once it is known
  size_t counted_ = 0;
  int line_ = 1;
};

}  // namespace

const char* Command::name() const { return kNames[argument.index()].data(); }

const google::protobuf::Message& Command::message() const {
  return std::visit(
      [](const auto& message) -> const google::protobuf::Message& {
        return message;
      },
      argument);
}

CommandList CommandListReader::read(const std::string& path) {
  try {
    return read(readFile(path, kJsonText), path);
  } catch (const FileError& error) {
    return {path, {}, {error.diagnostic}};
  }
}

CommandList CommandListReader::read(std::string_view text,
                                    const std::string& name) {
  return ListReader(text, name, &bindings_).run();
}

void reserveIds(const CommandList& list, IdAllocator* ids) {
  for (const Command& command : list.commands) {
    const auto* update =
        std::get_if<quil::pb::OpenFlowUpdateFlowsArg>(&command.argument);
    if (update == nullptr) continue;
    for (const auto& add : update->adds()) {
      ids->reserveFlowId(add.flowid());
      ids->reserveCounter(add.packetcounterid());
      ids->reserveCounter(add.bytecounterid());
    }
  }
}

}  // namespace ofswitch
