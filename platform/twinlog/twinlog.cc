// SPDX-License-Identifier: BSD-3-Clause
#include "platform/twinlog/twinlog.h"

#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>
#include <new>
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

// What this thread traces while it lives goes to no sink.
struct InSinks {
  InSinks() { inSink = true; }
  ~InSinks() { inSink = false; }
};

void handToSinks(const Message& message) {
  Sinks& all = Sinks::instance();
  const std::lock_guard lock(all.mutex);
  const InSinks here;
  for (const auto& [id, sink] : all.sinks) {
    sink(message);
  }
}

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

const Ringlog::Site* internAt(Place* place, const char* facility,
                              unsigned level, const char* function,
                              const char* format) noexcept {
  try {
    const Ringlog::Site& site =
        Ringlog::internSite(facility, level, function, format);
    place->store(&site, std::memory_order_release);
    return &site;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void writeText(const Ringlog::Site& site,
               std::span<const Ringlog::Argument> arguments) noexcept {
  if (inSink) {
    return;
  }
  try {
    handToSinks({site.facility, site.level, site.function,
                 Ringlog::format(site.format, arguments)});
  } catch (const std::bad_alloc&) {
    // The ring has the statement.
  }
}

}  // namespace Twinlog
