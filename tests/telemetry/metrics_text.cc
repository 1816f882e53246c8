// SPDX-License-Identifier: BSD-3-Clause
#include "tests/telemetry/metrics_text.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <set>
#include <sstream>
#include <stdexcept>

namespace ofswitch {
namespace {

[[noreturn]] void bad(const std::string& why) { throw std::runtime_error(why); }

// Takes a line apart from left to right.
class Cursor {
 public:
  explicit Cursor(const std::string& line) : line_(line) {}

  bool take(char c) {
    if (at_ == line_.size() || line_[at_] != c) return false;
    at_++;
    return true;
  }
  void need(char c) {
    if (!take(c)) bad(std::string("no '") + c + "'");
  }

  std::string name(bool colons) {
    std::string name;
    while (at_ < line_.size() &&
           (std::isalnum(line_[at_]) != 0 || line_[at_] == '_' ||
            (colons && line_[at_] == ':'))) {
      name += line_[at_++];
    }
    if (name.empty() || std::isdigit(name[0]) != 0) bad("no name");
    return name;
  }

  std::string quoted() {
    need('"');
    std::string text;
    while (!take('"')) {
      if (at_ == line_.size()) bad("no end of the label's value");
      if (!take('\\')) {
        text += line_[at_++];
      } else if (take('n')) {
        text += '\n';
      } else if (take('\\')) {
        text += '\\';
      } else {
        need('"');
        text += '"';
      }
    }
    return text;
  }

  double number() {
    const std::string text = line_.substr(at_);
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || std::isspace(text[0]) != 0 || *end != '\0') {
      bad("\"" + text + "\" is no number");
    }
    return value;
  }

 private:
  const std::string& line_;
  size_t at_ = 0;
};

bool includes(const MetricsText::Labels& all, const MetricsText::Labels& some) {
  return std::ranges::all_of(some, [&](const auto& label) {
    const auto found = all.find(label.first);
    return found != all.end() && found->second == label.second;
  });
}

}  // namespace

MetricsText::MetricsText(const std::string& page) {
  if (!page.empty() && page.back() != '\n') bad("no end of the last line");
  std::istringstream lines(page);
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    number++;
    try {
      line.starts_with('#') ? addComment(line) : addSample(line);
    } catch (const std::runtime_error& error) {
      bad("line " + std::to_string(number) + ": " + error.what() + ": " + line);
    }
  }
}

void MetricsText::addComment(const std::string& line) {
  std::istringstream words(line);
  std::string hash;
  std::string kind;
  std::string name;
  words >> hash >> kind >> name;
  std::string text;
  std::getline(words >> std::ws, text);
  if (text.empty()) bad("an empty " + kind);
  if (kind == "HELP") {
    if (!families_.emplace(name, Family{text, "", {}}).second) {
      bad("the family is there twice");
    }
    current_ = name;
    return;
  }
  if (kind != "TYPE" || name != current_) bad("no TYPE of this family");
  const std::set<std::string> types = {"counter", "gauge", "summary",
                                       "histogram", "untyped"};
  if (!types.contains(text)) bad("no type");
  if ((text == "counter") != name.ends_with("_total")) {
    bad("counters, and only they, are named ..._total");
  }
  families_[name].type = text;
}

// A summary has samples under names of its own.
MetricsText::Family& MetricsText::familyOfSample(const std::string& name) {
  if (current_.empty() || families_[current_].type.empty()) bad("no TYPE");
  Family& family = families_[current_];
  if (name == current_) return family;
  if (family.type == "summary" &&
      (name == current_ + "_sum" || name == current_ + "_count")) {
    return families_.try_emplace(name, Family{family.help, "part", {}})
        .first->second;
  }
  bad("a sample of another family than " + current_);
}

void MetricsText::addSample(const std::string& line) {
  Cursor cursor(line);
  Family& family = familyOfSample(cursor.name(true));
  Labels labels;
  if (cursor.take('{')) {
    do {
      const std::string name = cursor.name(false);
      cursor.need('=');
      if (!labels.emplace(name, cursor.quoted()).second) {
        bad("a label is there twice");
      }
    } while (cursor.take(','));
    cursor.need('}');
  }
  cursor.need(' ');
  const double value = cursor.number();
  if (family.type == "counter" && !(std::isfinite(value) && value >= 0)) {
    bad("no value of a counter");
  }
  if (!family.samples.emplace(labels, value).second) {
    bad("the series is there twice");
  }
}

double MetricsText::value(const std::string& family,
                          const Labels& labels) const {
  const double* found = nullptr;
  for (const auto& [all, value] : families_.at(family).samples) {
    if (!includes(all, labels)) continue;
    if (found != nullptr) bad(family + ": several series");
    found = &value;
  }
  if (found == nullptr) bad(family + ": no such series");
  return *found;
}

size_t MetricsText::count(const std::string& family,
                          const Labels& labels) const {
  return static_cast<size_t>(std::ranges::count_if(
      families_.at(family).samples,
      [&](const auto& sample) { return includes(sample.first, labels); }));
}

std::vector<std::string> MetricsText::labelValues(
    const std::string& family, const std::string& label) const {
  std::set<std::string> values;
  for (const auto& [labels, value] : families_.at(family).samples) {
    values.insert(labels.at(label));
  }
  return {values.begin(), values.end()};
}

}  // namespace ofswitch
