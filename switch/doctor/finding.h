// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace ofswitch {

// What the doctor has found out about one thing.
struct Finding {
  enum class Status {
    kOk,
    kGain,     // the switch runs, and would run better otherwise
    kProblem,  // keeps the switch from starting or packets from passing
  };
  Status status = Status::kOk;
  std::string subject;   // "memory", "port 1"
  std::string sentence;  // what there is, and why it matters
  // The command, or the line of the configuration, that mends it. Empty when
  // nothing is to be done, or nothing on this machine can be.
  std::string remedy;
};

// "ok", "gain" or "problem".
const char* word(Finding::Status status);

// Collects findings about one subject.
class Findings {
 public:
  void subject(std::string name) { subject_ = std::move(name); }
  void ok(std::string sentence) { add(Finding::Status::kOk, sentence, ""); }
  void gain(std::string sentence, std::string remedy) {
    add(Finding::Status::kGain, sentence, remedy);
  }
  void problem(std::string sentence, std::string remedy) {
    add(Finding::Status::kProblem, sentence, remedy);
  }

  const std::vector<Finding>& all() const { return all_; }

 private:
  void add(Finding::Status status, std::string& sentence, std::string remedy) {
    all_.push_back({status, subject_, std::move(sentence), std::move(remedy)});
  }

  std::string subject_;
  std::vector<Finding> all_;
};

}  // namespace ofswitch
