// SPDX-License-Identifier: BSD-3-Clause
#include "platform/twinlog/twinlog.h"

#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>
#include <utility>

namespace Twinlog {

namespace {

void writeLine(const Message& message) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char time[32];
  strftime(time, sizeof(time), "%Y-%m-%d %H:%M:%S", &local);
  // One call, so that lines of several processes do not mix.
  fprintf(stderr, "%s.%06ld %s/%u %s\n", time, now.tv_nsec / 1000,
          message.facility.c_str(), message.level, message.text.c_str());
}

struct Sinks {
  std::mutex mutex;
  std::map<SinkId, Sink> sinks{{kStandardErrorSink, writeLine}};
  SinkId lastId = kStandardErrorSink;

  static Sinks& instance() {
    // Never destroyed: static destructors may still trace.
    static auto* sinks = new Sinks;
    return *sinks;
  }
};

thread_local bool inSink = false;

}  // namespace

SinkId addSink(Sink sink) {
  Sinks& all = Sinks::instance();
  const std::lock_guard lock(all.mutex);
  all.sinks.emplace(++all.lastId, std::move(sink));
  return all.lastId;
}

void removeSink(SinkId id) {
  Sinks& all = Sinks::instance();
  const std::lock_guard lock(all.mutex);
  all.sinks.erase(id);
}

void addStandardErrorSink() {
  Sinks& all = Sinks::instance();
  const std::lock_guard lock(all.mutex);
  all.sinks.emplace(kStandardErrorSink, writeLine);
}

void writeText(const Ringlog::Site& site,
               std::span<const Ringlog::Argument> arguments) noexcept {
  if (inSink) {
    return;
  }
  const Message message{site.facility, site.level, site.function,
                        Ringlog::format(site.format, arguments)};
  Sinks& all = Sinks::instance();
  const std::lock_guard lock(all.mutex);
  inSink = true;
  for (const auto& [id, sink] : all.sinks) {
    sink(message);
  }
  inSink = false;
}

}  // namespace Twinlog
