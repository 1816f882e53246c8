// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch trace: asks a running switch what it would do to a packet.
#include <fmt/core.h>

#include <cstdio>
#include <memory>
#include <string>

#include "switch/client/switch_client.h"
#include "switch/commands/client_options.h"
#include "switch/commands/commands.h"
#include "switch/terminal/standard_error.h"
#include "switch/trace/trace_input.h"
#include "switch/trace/trace_text.h"

namespace ofswitch {
namespace {

constexpr int kUsage = 2;

struct TraceOptions : ClientOptions {
  std::string packet;
  uint32_t inPort = 0;
  uint32_t table = 0;
};

int trace(const TraceOptions& options) {
  PacketArgument packet;
  try {
    packet = readPacketArgument(options.packet);
  } catch (const PacketArgumentError& error) {
    printError("ofswitch: {}\n", error.what());
    return kUsage;
  }
  packet.request.set_in_port(options.inPort);
  packet.request.set_table(options.table);
  SwitchClient client(options.door);
  const auto reply = client.call<pb::TraceRequest, pb::TraceReply>(
      &SwitchClient::Stub::Trace, packet.request);
  if (!reply.refusal().empty()) {
    printError("ofswitch: {}\n", reply.refusal());
    return 1;
  }
  if (!packet.note.empty()) printError("note: {}\n", packet.note);
  fmt::print("{}", options.json ? traceJson(reply) : traceText(reply));
  return 0;
}

}  // namespace

void addTraceCommand(CLI::App* app, int* status) {
  CLI::App* command = app->add_subcommand(
      "trace", "Tell what a running switch would do to a packet, and why");
  command->footer(
      "Nothing is sent and no counter moves.\n"
      "Examples:\n"
      "  ofswitch trace in_port=1,tcp,nw_dst=10.0.0.5,tp_dst=80\n"
      "  ofswitch trace --in-port 1 capture.pcap#3");
  auto options = std::make_shared<TraceOptions>();
  command
      ->add_option("PACKET", options->packet,
                   "Flow text (in_port=1,tcp,nw_dst=10.0.0.5,tp_dst=80), "
                   "bytes in hexadecimal, or FILE.pcap#N for the N-th frame")
      ->required();
  command
      ->add_option("--in-port", options->inPort,
                   "The port that the packet comes in by")
      ->type_name("N");
  command
      ->add_option("--table", options->table,
                   "The table that the packet starts at")
      ->type_name("N");
  addClientOptions(command, options.get(), "Print JSON");
  command->callback([options, status] { *status = trace(*options); });
}

}  // namespace ofswitch
