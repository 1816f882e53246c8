// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <prometheus/metric_family.h>

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

namespace ofswitch {

using MetricLabels = std::vector<prometheus::ClientMetric::Label>;

// A family whose series are all read in one way from messages of one type.
template <class Message>
struct MetricSeries {
  const char* name;
  const char* help;
  prometheus::MetricType type;
  double (*value)(const Message&);
};

// Collects families in the order in which they are begun.
class MetricWriter {
 public:
  using Family = prometheus::MetricFamily;

  // The index of the family, for `add`.
  size_t begin(const char* name, const char* help,
               prometheus::MetricType type) {
    families_.push_back({name, help, type, {}});
    return families_.size() - 1;
  }

  void add(size_t family, MetricLabels labels, double value) {
    prometheus::ClientMetric& metric = families_[family].metric.emplace_back();
    metric.label = std::move(labels);
    if (families_[family].type == prometheus::MetricType::Counter) {
      metric.counter.value = value;
    } else {
      metric.gauge.value = value;
    }
  }

  // A family with one series that needs no label.
  void single(const char* name, const char* help, prometheus::MetricType type,
              double value) {
    add(begin(name, help, type), {}, value);
  }

  // A family for each of `series`, with one series for each message;
  // `labels(message)` names it.
  template <class Message, class Messages, class Labels>
  void each(std::span<const MetricSeries<Message>> series,
            const Messages& messages, const Labels& labels) {
    for (const MetricSeries<Message>& one : series) {
      const size_t family = begin(one.name, one.help, one.type);
      for (const Message& message : messages) {
        add(family, labels(message), one.value(message));
      }
    }
  }

  std::vector<Family> take() { return std::move(families_); }

 private:
  std::vector<Family> families_;
};

}  // namespace ofswitch
