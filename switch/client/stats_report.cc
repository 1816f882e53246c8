// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <vector>

#include "switch/client/drops_text.h"
#include "switch/client/reports.h"
#include "switch/terminal/amounts.h"
#include "switch/terminal/text_table.h"

namespace ofswitch {
namespace {

std::vector<pb::DropCause> dropsOf(const pb::StatsReply& stats) {
  return {stats.drops().begin(), stats.drops().end()};
}

std::string summary(const pb::StatsReply& stats) {
  return fmt::format(
      "up {}, {}, {}, {} by idle timeout, {} by hard timeout\n",
      ageText(stats.uptime_ns()), plural(stats.flows(), "flow"),
      plural(stats.flow_changes(), "flow change"),
      plural(stats.expired_idle(), "flow expired", "flows expired"),
      stats.expired_hard());
}

// Packets and bytes, and what came each second.
class Traffic {
 public:
  Traffic(const pb::StatsReply& now, const pb::StatsReply* before,
          double seconds)
      : now_(now),
        before_(before),
        seconds_(seconds),
        table_(before == nullptr
                   ? std::vector<std::string>{"packets", "bytes", ""}
                   : std::vector<std::string>{"packets", "bytes", "packets/s",
                                              "bit/s", ""},
               1) {}

  using Counter = uint64_t (pb::StatsReply::*)() const;

  void add(const char* what, Counter packets, Counter bytes = nullptr) {
    std::vector<std::string> row = {
        std::to_string((now_.*packets)()),
        bytes == nullptr ? "" : std::to_string((now_.*bytes)())};
    if (before_ != nullptr) {
      row.push_back(rateText(rate(packets)));
      row.push_back(bytes == nullptr ? "" : rateText(rate(bytes) * 8));
    }
    row.emplace_back(what);
    table_.add(row);
  }

  std::string text() const { return table_.text(); }

 private:
  double rate(Counter counter) const {
    return gainPerSecond((before_->*counter)(), (now_.*counter)(), seconds_);
  }

  const pb::StatsReply& now_;
  const pb::StatsReply* before_;
  double seconds_;
  TextTable table_;
};

std::string traffic(const pb::StatsReply& now, const pb::StatsReply* before,
                    double seconds) {
  Traffic traffic(now, before, seconds);
  traffic.add("received", &pb::StatsReply::packets_received,
              &pb::StatsReply::bytes_received);
  traffic.add("forwarded", &pb::StatsReply::packets_forwarded);
  traffic.add("copies for outputs", &pb::StatsReply::copies_output);
  traffic.add("copies sent", &pb::StatsReply::packets_sent,
              &pb::StatsReply::bytes_sent);
  return "\nPackets\n" + traffic.text();
}

std::string workers(const pb::StatsReply& stats) {
  TextTable table({"worker", "core", "rounds", "state", "serves"}, 2);
  for (const pb::WorkerStats& worker : stats.workers()) {
    table.add({std::to_string(worker.worker()),
               worker.core() < 0 ? "any" : std::to_string(worker.core()),
               std::to_string(worker.task_runs()),
               worker.running() ? "running" : "stopped",
               fmt::format("{}", fmt::join(worker.tasks(), ", "))});
  }
  return table.hasRows() ? "\nWorkers\n" + table.text() : "";
}

std::string accounting(const pb::StatsReply& stats) {
  std::string text = fmt::format("\nPacket buffers: {} of {} free\n",
                                 stats.buffers_free(), stats.buffers_total());
  if (!stats.closes()) {
    for (const std::string& discrepancy : stats.discrepancies()) {
      text += fmt::format("DOES NOT ADD UP: {}\n", discrepancy);
    }
  } else if (stats.exact()) {
    text += "Every packet is accounted for.\n";
  } else {
    text += fmt::format(
        "{} under way while this was read; --exact rules that out.\n",
        plural(stats.packets_in_flight(), "packet was", "packets were"));
  }
  return text;
}

}  // namespace

std::string statsText(const pb::StatsReply& now, const pb::StatsReply* before) {
  std::string text = summary(now);
  if (before == nullptr) {
    text += traffic(now, nullptr, 0) + dropsText(dropsOf(now));
  } else {
    const double seconds =
        static_cast<double>(now.time_ns() - before->time_ns()) / 1e9;
    const std::vector<pb::DropCause> drops = dropsOf(*before);
    text += traffic(now, before, seconds) +
            dropsText(dropsOf(now), &drops, seconds);
  }
  return text + workers(now) + accounting(now);
}

}  // namespace ofswitch
