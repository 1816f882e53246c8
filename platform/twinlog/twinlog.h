// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <span>
#include <string>

#include "platform/mio/trace_handle.h"
#include "platform/ringlog/ringlog.h"

// The trace statement, and the bridge from it to text.
//
// Every statement that runs goes to the ring, unformatted. Those of a level
// that is enabled for their facility are also formatted at once and handed to
// the sinks. Thread-safe.
//
// A statement never throws. It takes memory when it runs for the first time,
// and for its text; where there is none, it goes without.
namespace Twinlog {

struct Message {
  std::string facility;
  unsigned level;
  std::string function;
  std::string text;
};

// Gets the messages one at a time, on the thread that traces. What a sink
// traces itself goes to the ring only. It must not add or remove sinks, nor
// throw anything but std::bad_alloc, with which the message is lost for it and
// for the sinks behind it.
using Sink = std::function<void(const Message&)>;
using SinkId = unsigned;

// One line on standard error: time, facility/level, text. There from the start.
inline constexpr SinkId kStandardErrorSink = 0;

SinkId addSink(Sink sink);

// On return the sink does not run any more and will not be called again.
void removeSink(SinkId id);

// Puts the sink on standard error back.
void addStandardErrorSink();

// Where a trace statement keeps its Site, once it has one.
using Place = std::atomic<const Ringlog::Site*>;

// The statement's Site, which is kept in `place`. Null without memory for it;
// the next run tries again. For TWINLOG_TRACE.
const Ringlog::Site* internAt(Place* place, const char* facility,
                              unsigned level, const char* function,
                              const char* format) noexcept;

// Formats a statement for the sinks. For TWINLOG_TRACE.
void writeText(const Ringlog::Site& site,
               std::span<const Ringlog::Argument> arguments) noexcept;

template <size_t kPlaceholders, class... Args>
void trace(const Mio::TraceHandle& handle, const Ringlog::Site& site,
           const Args&... args) {
  static_assert(kPlaceholders == sizeof...(Args),
                "a trace has one argument for every %s");
  static_assert(sizeof...(Args) <= Ringlog::kMaxArguments);
  const std::array<Ringlog::Argument, sizeof...(Args)> arguments{
      Ringlog::Argument::of(args)...};
  Ringlog::write(site, arguments);
  if (handle.enabled(site.level)) [[unlikely]] {
    writeText(site, arguments);
  }
}

}  // namespace Twinlog

// Traces a statement: TWINLOG_TRACE(handle, 2, "addFlow flowId: %s", id).
// `handle` is a Mio::TraceHandle, always the same one at this place; `level`
// and `format` are constants. Every "%s" takes the next argument, whatever its
// type; "%%" prints "%". Arguments are evaluated once at most. For text
// composed beforehand use the format "%s".
#define TWINLOG_TRACE(handle, level, format, ...)                          \
  do {                                                                     \
    static_assert((level) < 32);                                           \
    const Mio::TraceHandle& twinlogHandle = (handle);                      \
    static constinit Twinlog::Place twinlogPlace{nullptr};                 \
    const Ringlog::Site* twinlogSite =                                     \
        twinlogPlace.load(std::memory_order_acquire);                      \
    if (twinlogSite == nullptr) [[unlikely]] {                             \
      twinlogSite = Twinlog::internAt(&twinlogPlace, twinlogHandle.name(), \
                                      (level), __func__, (format));        \
    }                                                                      \
    if (twinlogSite != nullptr) [[likely]] {                               \
      Twinlog::trace<Ringlog::countPlaceholders(format)>(                  \
          twinlogHandle, *twinlogSite __VA_OPT__(, ) __VA_ARGS__);         \
    }                                                                      \
  } while (false)
