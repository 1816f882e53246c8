// SPDX-License-Identifier: BSD-3-Clause
//
// Flow files of any content: every line is taken or refused with a line number
// and a reason, and what is taken reads the same after it was printed.
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "switch/flow/flow_printer.h"
#include "switch/flow/flow_reader.h"
#include "switch/flow/id_allocator.h"
#include "switch/flow/refused.h"
#include "switch/flow/translator.h"

namespace {

using openflow_fuzz::fail;

void checkRoundTrip(const ofswitch::Flow& flow) {
  const std::string text = ofswitch::flowText(flow);
  try {
    const auto again =
        ofswitch::FlowReader({.allowTimeouts = true}).readLine(text);
    const std::string once_more = ofswitch::flowText(again);
    if (once_more != text) fail("\"{}\" reads as \"{}\"", text, once_more);
  } catch (const ofswitch::Refused& refused) {
    fail("printed \"{}\" is refused: {}", text, refused.what());
  }
}

bool printable(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
  }
  return true;
}

void checkDiagnostics(const std::vector<ofswitch::Diagnostic>& diagnostics) {
  for (const ofswitch::Diagnostic& diagnostic : diagnostics) {
    const std::string text = diagnostic.text();
    if (diagnostic.reason.empty()) fail("a refusal without reason: {}", text);
    if (!printable(text)) fail("a refusal that moves the cursor: {}", text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  const ofswitch::FlowFile file =
      ofswitch::FlowReader({.allowTimeouts = true}).read(in, "fuzz");
  checkDiagnostics(file.refusals);
  for (const ofswitch::Flow& flow : file.flows) checkRoundTrip(flow);

  ofswitch::IdAllocator ids;
  ofswitch::FlowTranslator translator(ofswitch::portsNamedBy(file.flows), &ids);
  const ofswitch::Translation translation = translator.add(file.flows);
  checkDiagnostics(translation.refusals);
  checkDiagnostics(translation.notes);
  if (!translation.ok() && !translation.updates.empty()) {
    fail("refused flows are sent to the module all the same");
  }
  return 0;
}
