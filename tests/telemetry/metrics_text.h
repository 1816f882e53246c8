// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <map>
#include <string>
#include <vector>

namespace ofswitch {

// A page in Prometheus' text format, version 0.0.4, read as strictly as that
// format is written: each family once, with its help and type before its
// samples, no series twice, names and escapes valid, counters finite, not
// negative and named "..._total".
class MetricsText {
 public:
  using Labels = std::map<std::string, std::string>;
  struct Family {
    std::string help;
    std::string type;
    std::map<Labels, double> samples;
  };

  // Throws std::runtime_error that names the line.
  explicit MetricsText(const std::string& page);

  const std::map<std::string, Family>& families() const { return families_; }
  // The one series whose labels include `labels`. Throws when there are none or
  // several.
  double value(const std::string& family, const Labels& labels = {}) const;
  // How many series of the family include `labels`.
  size_t count(const std::string& family, const Labels& labels = {}) const;
  // The values of one label over all series of a family, each once.
  std::vector<std::string> labelValues(const std::string& family,
                                       const std::string& label) const;

 private:
  void addComment(const std::string& line);
  void addSample(const std::string& line);
  Family& familyOfSample(const std::string& name);

  std::map<std::string, Family> families_;
  std::string current_;  // the family whose lines these are
};

}  // namespace ofswitch
