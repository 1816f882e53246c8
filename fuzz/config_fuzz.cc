// SPDX-License-Identifier: BSD-3-Clause
//
// Configuration files of any content: taken, or refused in one line that names
// the file.
#include <set>
#include <string>

#include "fuzz/target.h"
#include "switch/live/config.h"

namespace {

using openflow_fuzz::fail;

void checkConfig(const ofswitch::SwitchConfig& config) {
  std::set<uint16_t> numbers;
  for (const ofswitch::PortConfig& port : config.ports) {
    if (port.number == 0 || !numbers.insert(port.number).second) {
      fail("port {} is taken twice or is nobody's", port.number);
    }
    if (port.device.empty() || port.name.empty() || port.queues == 0) {
      fail("port {} lacks what it needs", port.number);
    }
  }
  if (config.workers.empty()) fail("no worker");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    checkConfig(ofswitch::parseConfig(text, "switch.yaml"));
  } catch (const ofswitch::ConfigError& error) {
    const std::string what = error.what();
    if (what.rfind("switch.yaml", 0) != 0) fail("names no file: {}", what);
    if (what.find('\n') != what.npos) fail("more than a line: {}", what);
  }
  return 0;
}
