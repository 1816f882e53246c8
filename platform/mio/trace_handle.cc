// SPDX-License-Identifier: BSD-3-Clause
#include "platform/mio/trace_handle.h"

#include <map>
#include <memory>
#include <mutex>

namespace Mio {

namespace {

TraceFacility& facilityOf(const std::string& name) {
  static std::mutex mutex;
  // Never destroyed: static destructors may still trace.
  static auto* facilities =
      new std::map<std::string, std::unique_ptr<TraceFacility>>;
  const std::lock_guard lock(mutex);
  std::unique_ptr<TraceFacility>& facility = (*facilities)[name];
  if (facility == nullptr) {
    facility = std::make_unique<TraceFacility>();
    facility->name = name;
  }
  return *facility;
}

}  // namespace

TraceHandle::TraceHandle(const char* facility, uint32_t levels)
    : facility_(&facilityOf(facility)) {
  facility_->levels.fetch_or(levels, std::memory_order_relaxed);
}

void setTraceLevels(const std::string& facility, uint32_t mask) {
  facilityOf(facility).levels.store(mask, std::memory_order_relaxed);
}

uint32_t traceLevels(const std::string& facility) {
  return facilityOf(facility).levels.load(std::memory_order_relaxed);
}

}  // namespace Mio
