// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/traces.h"

#include <algorithm>
#include <mutex>

#include "platform/mio/mio.h"
#include "platform/ringlog/ringlog.h"
#include "platform/twinlog/twinlog.h"

namespace openflow_test {
namespace {

constexpr const char* kFacility = "OpenFlow";

}  // namespace

TraceMark::TraceMark()
    : position_(Ringlog::Ring::instance().readSince(0).next) {}

std::vector<TraceMark::Entry> TraceMark::entries(
    const std::string& facility) const {
  std::vector<Entry> entries;
  for (const Ringlog::Entry& entry :
       Ringlog::Ring::instance().readSince(position_).entries) {
    if (entry.facility == facility) {
      entries.push_back({entry.level, entry.text});
    }
  }
  return entries;
}

std::vector<std::string> TraceMark::texts(unsigned level) const {
  std::vector<std::string> texts;
  for (const Entry& entry : entries(kFacility)) {
    if (entry.level == level) texts.push_back(entry.text);
  }
  return texts;
}

bool TraceMark::contains(const std::string& text) const {
  const std::vector<Entry> all = entries(kFacility);
  return std::any_of(all.begin(), all.end(),
                     [&](const Entry& entry) { return entry.text == text; });
}

class TextTrace::Impl {
 public:
  explicit Impl(uint32_t mask) : levels_(Mio::traceLevels(kFacility)) {
    Twinlog::removeSink(Twinlog::kStandardErrorSink);
    sink_ = Twinlog::addSink([this](const Twinlog::Message& message) {
      if (message.facility != kFacility) return;
      const std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(message.text);
    });
    Mio::setTraceLevels(kFacility, mask);
  }

  ~Impl() {
    Mio::setTraceLevels(kFacility, levels_);
    Twinlog::removeSink(sink_);
    Twinlog::addStandardErrorSink();
  }

  std::vector<std::string> lines() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  const uint32_t levels_;
  Twinlog::SinkId sink_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TextTrace::TextTrace(uint32_t mask) : impl_(std::make_unique<Impl>(mask)) {}

TextTrace::~TextTrace() = default;

std::vector<std::string> TextTrace::lines() const { return impl_->lines(); }

}  // namespace openflow_test
