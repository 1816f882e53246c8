// SPDX-License-Identifier: BSD-3-Clause
#include "switch/terminal/amounts.h"

#include <fmt/format.h>

namespace ofswitch {

std::string plural(uint64_t count, std::string_view one) {
  return plural(count, one, fmt::format("{}s", one));
}

std::string plural(uint64_t count, std::string_view one,
                   std::string_view many) {
  return fmt::format("{} {}", count, count == 1 ? one : many);
}

std::string sizeText(uint64_t bytes) {
  constexpr uint64_t kMb = uint64_t{1} << 20;
  return bytes < 10 * kMb ? fmt::format("{} KB", (bytes + 1023) / 1024)
                          : fmt::format("{} MB", (bytes + kMb / 2) / kMb);
}

std::string timeText(uint64_t ns) {
  constexpr uint64_t kMs = 1'000'000;
  constexpr uint64_t kSecond = 1'000 * kMs;
  const auto time = static_cast<double>(ns);
  if (ns < kMs) return fmt::format("{} us", ns / 1'000);
  if (ns < kSecond) return fmt::format("{:.2f} ms", time / kMs);
  return fmt::format("{:.2f} s", time / kSecond);
}

std::string ageText(uint64_t ns) {
  const uint64_t seconds = ns / 1'000'000'000;
  const uint64_t minutes = seconds / 60;
  const uint64_t hours = minutes / 60;
  if (minutes == 0) return fmt::format("{} s", seconds);
  if (hours == 0) return fmt::format("{} min {} s", minutes, seconds % 60);
  if (hours < 24) return fmt::format("{} h {} min", hours, minutes % 60);
  return fmt::format("{} d {} h", hours / 24, hours % 24);
}

double gainPerSecond(uint64_t before, uint64_t now, double seconds) {
  return now > before ? static_cast<double>(now - before) / seconds : 0;
}

std::string rateText(double perSecond) {
  if (perSecond >= 1e9) return fmt::format("{:.2f} G", perSecond / 1e9);
  if (perSecond >= 1e6) return fmt::format("{:.2f} M", perSecond / 1e6);
  if (perSecond >= 1e5) return fmt::format("{:.0f} k", perSecond / 1e3);
  if (perSecond >= 100) return fmt::format("{:.0f}", perSecond);
  return perSecond > 0 ? fmt::format("{:.1f}", perSecond) : "0";
}

}  // namespace ofswitch
