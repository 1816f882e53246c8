// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ofswitch {

// A mapping of a YAML file, read key by key. What it throws is ConfigError, a
// line that names the file, the line and what would be right.
class YamlSection {
 public:
  // `where` is the path of keys to it, for errors; empty for the file itself.
  YamlSection(YAML::Node node, std::string file, std::string where);

  // Takes the value of `key`, if it is there, with one of these.
  void text(const char* key, std::string* value);
  void flag(const char* key, bool* value);
  template <class T>
  void number(const char* key, uint64_t least, uint64_t most, T* value) {
    each(key, [&](const YAML::Node& node) {
      *value = static_cast<T>(toNumber(node, key, least, most));
    });
  }
  // One value or a list of them.
  void list(const char* key, const std::function<void(const YAML::Node&)>& fn);
  void section(const char* key, const std::function<void(YamlSection&)>& read);
  // Each mapping of a list.
  void sections(const char* key, const std::function<void(YamlSection&)>& read);
  // The value as it stands.
  void each(const char* key, const std::function<void(const YAML::Node&)>& fn);

  bool has(const char* key) const;
  const std::string& file() const { return file_; }

  // Refuses what nobody has asked for, with a suggestion. Last.
  void finish();

  [[noreturn]] void fail(const std::string& reason) const;
  [[noreturn]] void failAt(const YAML::Node& node,
                           const std::string& reason) const;
  // "switch.yaml:5"
  std::string place(const YAML::Node& node) const;
  uint64_t toNumber(const YAML::Node& node, const char* key, uint64_t least,
                    uint64_t most) const;
  std::string toText(const YAML::Node& node, const char* key) const;
  std::string pathOf(std::string_view key) const;

 private:
  [[noreturn]] void failAt(const YAML::Mark& mark,
                           const std::string& reason) const;

  YAML::Node node_;
  YAML::Mark mark_;  // where it begins, also if nothing stands there
  std::string file_;
  std::string where_;
  std::vector<std::string_view> known_;  // literals
};

}  // namespace ofswitch
