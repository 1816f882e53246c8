// SPDX-License-Identifier: BSD-3-Clause
//
// Amounts as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ofswitch {

// "1 packet", "2 packets"; `many` for words that do not just take an s.
std::string plural(uint64_t count, std::string_view one);
std::string plural(uint64_t count, std::string_view one, std::string_view many);

// Memory: "8193 KB" for what is below 10 MB, "11 MB" for more.
std::string sizeText(uint64_t bytes);

// A time that something took: "850 us", "1.25 ms", "3.10 s".
std::string timeText(uint64_t ns);

// How long something has lasted: "12 s", "3 min 5 s", "2 d 4 h".
std::string ageText(uint64_t ns);

// What a counter gained in each of so many seconds. Some go back a little, when
// a device finds out late that it has not sent a packet: that is no gain.
double gainPerSecond(uint64_t before, uint64_t now, double seconds);

// A rate: "0", "12.5", "843", "1.50 M".
std::string rateText(double perSecond);

}  // namespace ofswitch
