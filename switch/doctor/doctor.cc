// SPDX-License-Identifier: BSD-3-Clause
#include "switch/doctor/doctor.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "switch/doctor/checks.h"

namespace ofswitch {
namespace {

using Status = Finding::Status;

size_t count(const std::vector<Finding>& findings, Status status) {
  return static_cast<size_t>(
      std::ranges::count(findings, status, &Finding::status));
}

std::string plural(size_t count, const char* word) {
  return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

}  // namespace

const char* word(Status status) {
  switch (status) {
    case Status::kOk:
      return "ok";
    case Status::kGain:
      return "gain";
    case Status::kProblem:
      return "problem";
  }
  return "";
}

std::string inFile(const SwitchConfig& config, const std::string& line) {
  return fmt::format("in {}: {}",
                     config.file.empty() ? "switch.yaml" : config.file, line);
}

std::vector<Finding> examine(const Machine& machine,
                             const SwitchConfig& config) {
  Findings out;
  checkProcessor(machine, &out);
  checkCores(machine, config, &out);
  checkMemory(machine, config, &out);
  checkControl(machine, config, &out);
  for (const PortConfig& port : config.ports) {
    checkPort(machine, config, port, &out);
  }
  checkOtherCards(machine, config, &out);
  return out.all();
}

bool healthy(const std::vector<Finding>& findings) {
  return count(findings, Status::kProblem) == 0;
}

std::string findingsText(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& one : findings) {
    text += fmt::format("{:8} {}: {}\n", word(one.status), one.subject,
                        one.sentence);
    if (!one.remedy.empty()) text += fmt::format("           {}\n", one.remedy);
  }
  const std::string gains =
      plural(count(findings, Status::kGain), "possible gain");
  return text + (healthy(findings)
                     ? fmt::format("ready to run, {}\n", gains)
                     : fmt::format(
                           "not ready to run: {}, {}\n",
                           plural(count(findings, Status::kProblem), "problem"),
                           gains));
}

std::string findingsJson(const std::vector<Finding>& findings) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Finding& one : findings) {
    list.push_back({{"status", word(one.status)},
                    {"subject", one.subject},
                    {"sentence", one.sentence},
                    {"remedy", one.remedy}});
  }
  const nlohmann::ordered_json all = {{"ready", healthy(findings)},
                                      {"findings", list}};
  return all.dump(2) + "\n";
}

}  // namespace ofswitch
