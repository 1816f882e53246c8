// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/yaml_section.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "switch/flow/diagnostic.h"
#include "switch/flow/numbers.h"
#include "switch/flow/suggest.h"
#include "switch/live/config.h"

namespace ofswitch {

YamlSection::YamlSection(YAML::Node node, std::string file, std::string where)
    : node_(std::move(node)),
      mark_(node_.Mark()),
      file_(std::move(file)),
      where_(std::move(where)) {
  if (node_.IsNull()) node_ = YAML::Node(YAML::NodeType::Map);
  if (!node_.IsMap()) {
    fail(where_.empty() ? "the file must hold keys and values"
                        : fmt::format("{}: must hold keys and values", where_));
  }
  std::set<std::string> seen;
  for (const auto& pair : node_) {
    const std::string key = pair.first.Scalar();
    if (!pair.first.IsScalar()) failAt(pair.first, "a key must be a word");
    if (!seen.insert(key).second) {
      failAt(pair.first, fmt::format("{} is there twice", pathOf(key)));
    }
  }
}

void YamlSection::failAt(const YAML::Node& node,
                         const std::string& reason) const {
  failAt(node.Mark(), reason);
}

// A null mark is one of line -1.
void YamlSection::failAt(const YAML::Mark& mark,
                         const std::string& reason) const {
  throw ConfigError(Diagnostic{file_, mark.line + 1, reason}.text());
}

std::string YamlSection::place(const YAML::Node& node) const {
  return fmt::format("{}:{}", file_, node.Mark().line + 1);
}

void YamlSection::fail(const std::string& reason) const {
  failAt(mark_, reason);
}

std::string YamlSection::pathOf(std::string_view key) const {
  return where_.empty() ? std::string(key) : fmt::format("{}.{}", where_, key);
}

bool YamlSection::has(const char* key) const {
  const YAML::Node value = node_[key];
  return value.IsDefined() && !value.IsNull();
}

void YamlSection::each(const char* key,
                       const std::function<void(const YAML::Node&)>& fn) {
  known_.push_back(key);
  if (has(key)) fn(node_[key]);
}

std::string YamlSection::toText(const YAML::Node& node, const char* key) const {
  if (!node.IsScalar()) {
    failAt(node, fmt::format("{}: must be one value", pathOf(key)));
  }
  return node.Scalar();
}

uint64_t YamlSection::toNumber(const YAML::Node& node, const char* key,
                               uint64_t least, uint64_t most) const {
  const std::string text = toText(node, key);
  const auto number = ofswitch::toNumber(text);
  if (!number || *number < least || *number > most) {
    failAt(node, fmt::format("{}: \"{}\" is not a number from {} to {}",
                             pathOf(key), text, least, most));
  }
  return *number;
}

void YamlSection::text(const char* key, std::string* value) {
  each(key, [&](const YAML::Node& node) { *value = toText(node, key); });
}

void YamlSection::flag(const char* key, bool* value) {
  each(key, [&](const YAML::Node& node) {
    const std::string text = toText(node, key);
    if (text != "true" && text != "false") {
      failAt(node, fmt::format("{}: \"{}\" is neither true nor false",
                               pathOf(key), text));
    }
    *value = text == "true";
  });
}

void YamlSection::list(const char* key,
                       const std::function<void(const YAML::Node&)>& fn) {
  each(key, [&](const YAML::Node& node) {
    if (node.IsScalar()) return fn(node);
    if (!node.IsSequence()) {
      failAt(node, fmt::format("{}: must be a value or a list", pathOf(key)));
    }
    for (const YAML::Node& item : node) fn(item);
  });
}

void YamlSection::section(const char* key,
                          const std::function<void(YamlSection&)>& read) {
  each(key, [&](const YAML::Node& node) {
    YamlSection section(node, file_, pathOf(key));
    read(section);
    section.finish();
  });
}

void YamlSection::sections(const char* key,
                           const std::function<void(YamlSection&)>& read) {
  each(key, [&](const YAML::Node& node) {
    if (!node.IsSequence()) {
      failAt(node, fmt::format("{}: must be a list", pathOf(key)));
    }
    for (const YAML::Node& item : node) {
      YamlSection section(item, file_, pathOf(key));
      read(section);
      section.finish();
    }
  });
}

void YamlSection::finish() {
  for (const auto& pair : node_) {
    const std::string& key = pair.first.Scalar();
    if (std::ranges::find(known_, key) == known_.end()) {
      failAt(pair.first, fmt::format("unknown key \"{}\"{}", pathOf(key),
                                     suggest(key, known_)));
    }
  }
}

}  // namespace ofswitch
