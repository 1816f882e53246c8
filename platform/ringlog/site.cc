// SPDX-License-Identifier: BSD-3-Clause
#include "platform/ringlog/site.h"

#include <mutex>
#include <set>
#include <tuple>

namespace Ringlog {

namespace {

struct ByContent {
  bool operator()(const Site& a, const Site& b) const {
    return std::tie(a.facility, a.level, a.function, a.format) <
           std::tie(b.facility, b.level, b.function, b.format);
  }
};

struct Sites {
  std::mutex mutex;
  std::set<Site, ByContent> set;  // its elements never move

  static Sites& instance() {
    static auto* sites = new Sites;  // never destroyed, see internSite
    return *sites;
  }
};

}  // namespace

const Site& internSite(std::string_view facility, unsigned level,
                       std::string_view function, std::string_view format) {
  Site site{std::string(facility), level, std::string(function),
            std::string(format)};
  Sites& sites = Sites::instance();
  const std::lock_guard lock(sites.mutex);
  return *sites.set.insert(std::move(site)).first;
}

size_t countSites() {
  Sites& sites = Sites::instance();
  const std::lock_guard lock(sites.mutex);
  return sites.set.size();
}

}  // namespace Ringlog
