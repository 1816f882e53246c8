// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/log_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <string_view>

#include "platform/mio/mio.h"
#include "platform/ringlog/ringlog.h"
#include "switch/flow/suggest.h"
#include "switch/live/live_switch.h"
#include "switch/live/log_levels.h"

namespace ofswitch {
namespace {

pb::LogEntry logEntry(const Ringlog::Entry& entry) {
  pb::LogEntry message;
  message.set_position(entry.position);
  message.set_time_ns(static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(
          entry.time.time_since_epoch())
          .count()));
  message.set_thread(entry.thread);
  message.set_facility(entry.facility);
  message.set_level(entry.level);
  message.set_text(entry.text);
  message.set_function(entry.function);
  return message;
}

}  // namespace

uint64_t readLogEntries(const pb::LogRequest& request, size_t most,
                        std::vector<pb::LogEntry>* entries) {
  const Ringlog::Reading reading = Ringlog::Ring::instance().read(
      {.since = request.since(),
       .most = most,
       .last = request.last() == 0 ? SIZE_MAX : request.last(),
       .wanted = [&](const Ringlog::Site& site) {
         return site.level <= request.max_level() &&
                (request.facility().empty() ||
                 site.facility == request.facility());
       }});
  for (const Ringlog::Entry& entry : reading.entries) {
    entries->push_back(logEntry(entry));
  }
  return reading.next;
}

pb::LogLevels applyLogLevels(const pb::LogLevels& levels) {
  const std::vector<std::string_view> known(kLogFacilities.begin(),
                                            kLogFacilities.end());
  for (const auto& [facility, mask] : levels.levels()) {
    if (std::ranges::find(known, facility) == known.end()) {
      throw BadRequest(fmt::format("nothing logs as \"{}\"{}", facility,
                                   suggest(facility, known)));
    }
  }
  for (const auto& [facility, mask] : levels.levels()) {
    Mio::setTraceLevels(facility, mask);
  }
  pb::LogLevels current;
  for (const std::string name : kLogFacilities) {
    (*current.mutable_levels())[name] = Mio::traceLevels(name);
  }
  return current;
}

}  // namespace ofswitch
