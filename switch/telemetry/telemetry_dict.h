// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <rte_telemetry.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace ofswitch {

// A dictionary of an answer to DPDK's telemetry, which turns it into JSON.
// Names are made of letters, digits and "_"; texts are cut off after 127
// characters. What goes beyond DPDK's limits on the number of things is left
// out.
class TelemetryDict {
 public:
  explicit TelemetryDict(rte_tel_data* data) : data_(data) {
    rte_tel_data_start_dict(data_);
  }

  void number(const std::string& name, uint64_t value) {
    rte_tel_data_add_dict_u64(data_, name.c_str(), value);
    size_ += name.size() + kMark + kLongestNumber;
  }

  void text(const std::string& name, const std::string& value) {
    rte_tel_data_add_dict_string(data_, name.c_str(), value.c_str());
    size_ += name.size() + kMark + value.size();
  }

  template <class Texts>
  void texts(const std::string& name, const Texts& values) {
    rte_tel_data* list = rte_tel_data_alloc();
    if (list == nullptr) return;
    rte_tel_data_start_array(list, RTE_TEL_STRING_VAL);
    for (const std::string& value : values) {
      rte_tel_data_add_array_string(list, value.c_str());
      size_ += value.size() + kMark;
    }
    add(name, list);
  }

  // `fill(TelemetryDict*)` fills a dictionary inside this one.
  template <class Fill>
  void dict(const std::string& name, const Fill& fill) {
    rte_tel_data* data = rte_tel_data_alloc();
    if (data == nullptr) return;
    TelemetryDict inner(data);
    fill(&inner);
    size_ += inner.size_;
    add(name, data);
  }

  // Whether a dictionary of `more` characters still fits into an answer.
  // Beyond its longest, DPDK drops what does not fit without a word.
  bool hasRoom(size_t more) const { return size_ + more < kLongestAnswer; }

 private:
  static constexpr size_t kMark = 6;  // quotes, colon, comma
  static constexpr size_t kLongestNumber = 20;
  // DPDK's 16,384, less the command and the brackets around the answer.
  static constexpr size_t kLongestAnswer = 16'000;

  void add(const std::string& name, rte_tel_data* data) {
    size_ += name.size() + kMark;
    constexpr int kDropWithAnswer = 0;
    if (rte_tel_data_add_dict_container(data_, name.c_str(), data,
                                        kDropWithAnswer) != 0) {
      rte_tel_data_free(data);
    }
  }

  rte_tel_data* data_;
  size_t size_ = 0;  // of the JSON text, at most
};

}  // namespace ofswitch
