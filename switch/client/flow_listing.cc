// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/flow_listing.h"

#include <fmt/core.h>

#include "switch/client/message_json.h"

namespace ofswitch {

void printFlows(SwitchClient* client, const pb::FlowFilter& filter, bool json) {
  grpc::ClientContext context;
  const auto reader = client->stub().DumpFlows(&context, filter);
  pb::FlowEntry entry;
  const char* separator = "[\n";
  while (reader->Read(&entry)) {
    if (json) {
      fmt::print("{}{}", separator, jsonLine(messageJson(entry)));
      separator = ",\n";
    } else {
      fmt::print("{}\n", entry.text());
    }
  }
  client->check(reader->Finish());
  if (json) fmt::print("{}", *separator == '[' ? "[]\n" : "\n]\n");
}

}  // namespace ofswitch
