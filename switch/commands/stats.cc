// SPDX-License-Identifier: BSD-3-Clause
//
// ofswitch stats: what became of all packets of a running switch.
#include <fmt/core.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>

#include "switch/client/message_json.h"
#include "switch/client/reports.h"
#include "switch/client/switch_client.h"
#include "switch/commands/client_options.h"
#include "switch/commands/commands.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/interruption.h"
#include "switch/terminal/standard_output.h"

namespace ofswitch {
namespace {

using Json = nlohmann::ordered_json;

constexpr uint64_t kMostReadings = 1'000'000'000;  // "-1" would be above
constexpr double kLeastInterval = 0.05;            // seconds
constexpr double kMostInterval = 86400;

struct StatsOptions : ClientOptions {
  double interval = 1;  // seconds
  bool watch = false;
  uint64_t count = 0;  // readings; 0: until it is interrupted
  bool exact = false;
};

// Rates are part of the object, so that nobody has to keep the last one.
Json watchJson(const pb::StatsReply& now, const pb::StatsReply* before) {
  Json json = messageJson(now);
  if (before == nullptr) return json;
  const double seconds =
      static_cast<double>(now.time_ns() - before->time_ns()) / 1e9;
  using Counter = uint64_t (pb::StatsReply::*)() const;
  const auto rate = [&](Counter counter) {
    return gainPerSecond((before->*counter)(), (now.*counter)(), seconds);
  };
  json["perSecond"] = {
      {"packetsReceived", rate(&pb::StatsReply::packets_received)},
      {"bytesReceived", rate(&pb::StatsReply::bytes_received)},
      {"packetsForwarded", rate(&pb::StatsReply::packets_forwarded)},
      {"copiesOutput", rate(&pb::StatsReply::copies_output)},
      {"packetsSent", rate(&pb::StatsReply::packets_sent)},
      {"bytesSent", rate(&pb::StatsReply::bytes_sent)}};
  return json;
}

class Watch {
 public:
  explicit Watch(const StatsOptions& options) : options_(options) {}

  int run() {
    SwitchClient client(options_.door);
    const auto interval = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(options_.interval));
    do {
      const std::optional<pb::StatsReply> now = read(&client);
      if (!now) return 0;
      print(*now);
      before_ = now;
      readings_++;
    } while (readings_ != options_.count && !interruption_.waitFor(interval));
    if (isTerminal_) fmt::print("\n");
    return 0;
  }

 private:
  // Nothing if it was interrupted.
  std::optional<pb::StatsReply> read(SwitchClient* client) {
    pb::StatsRequest request;
    request.set_pause(options_.exact);
    pb::StatsReply reply;
    grpc::ClientContext context;
    interruption_.calls([&context] { context.TryCancel(); });
    const grpc::Status status =
        client->stub().GetStats(&context, request, &reply);
    interruption_.calls(nullptr);
    if (interruption_.happened()) return {};
    client->check(status);
    return reply;
  }

  void print(const pb::StatsReply& now) {
    // A switch that was started anew counts anew.
    const bool hasBefore = before_ && before_->time_ns() < now.time_ns() &&
                           before_->uptime_ns() < now.uptime_ns();
    const pb::StatsReply* before = hasBefore ? &*before_ : nullptr;
    if (options_.json) {
      fmt::print("{}\n", jsonLine(watchJson(now, before)));
    } else {
      constexpr char kToTopAndWipe[] = "\033[H\033[2J";
      fmt::print("{}{}",
                 isTerminal_     ? kToTopAndWipe
                 : readings_ > 0 ? "\n"
                                 : "",
                 statsText(now, before));
    }
    flushOutput();
  }

  const StatsOptions& options_;
  Interruption interruption_;
  const bool isTerminal_ = !options_.json && isatty(STDOUT_FILENO) == 1;
  std::optional<pb::StatsReply> before_;
  uint64_t readings_ = 0;
};

int stats(const StatsOptions& options) {
  if (options.watch) return Watch(options).run();
  pb::StatsRequest request;
  request.set_pause(options.exact);
  SwitchClient client(options.door);
  const auto reply = client.call(&SwitchClient::Stub::GetStats, request);
  if (options.json) {
    fmt::print("{}\n", jsonText(messageJson(reply)));
  } else {
    fmt::print("{}", statsText(reply, nullptr));
  }
  return reply.closes() ? 0 : 1;
}

}  // namespace

void addStatsCommand(CLI::App* app, int* status) {
  CLI::App* command = app->add_subcommand(
      "stats", "What became of all packets of a running switch");
  command->footer(
      "Every packet that was received is forwarded or dropped for a cause that "
      "is named. The exit status is 1 when the sums do not close.\n"
      "Examples:\n"
      "  ofswitch stats\n"
      "  ofswitch stats --watch\n"
      "  ofswitch stats --watch 0.5 --count 10 --json | jq .perSecond");
  auto options = std::make_shared<StatsOptions>();
  CLI::Option* watch =
      command
          ->add_option("-w,--watch", options->interval,
                       "Read again every so many seconds, with rates, until "
                       "Ctrl-C; with --json an object a line")
          ->type_name("[SECONDS]")
          ->expected(0, 1)
          ->default_str("1")
          ->check(CLI::Range(kLeastInterval, kMostInterval));
  command->add_option("--count", options->count, "End after so many readings")
      ->type_name("N")
      ->needs(watch)
      ->check(CLI::Range(uint64_t{1}, kMostReadings));
  command->add_flag("--exact", options->exact,
                    "Stop the workers for the moment of the reading, so that "
                    "no packet is under way");
  addClientOptions(command, options.get(), "Print the answer as JSON");
  command->callback([options, status, watch] {
    options->watch = watch->count() > 0;
    *status = stats(*options);
  });
}

}  // namespace ofswitch
