// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <fmt/format.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

namespace openflow_test {

// Flows of IPv6 in nine groups, in the order in which the classifier library
// takes them: flows that fix a field come after those that leave it open. Each
// flow leaves open what the group before its own fixes, so that all of that
// group would lie below it, and a trie may not grow so much for one flow. So
// each group begins a trie of its own, and the library has eight.
inline std::string flowsOfTooManyTries() {
  // 0 to 3 are random words, 4 is the flow's number in its group, 5 and 6 its
  // bytes.
  const std::string first = "ipv6_src={0:x}:{1:x}:{2:x}:{3:x}::/64";
  const std::string last =
      "ipv6_src=::{0:x}:{1:x}:{2:x}:{3:x}/::ffff:ffff:ffff:ffff";
  const std::vector<std::pair<int, std::string>> groups = {
      {1400, "tp_src={0},tp_dst={1}"},
      {600, "ipv6_dst={0:x}:{1:x}:{2:x}:{3:x}::/64"},
      {600, last},
      {600, first},
      {600, last + ",dl_vlan={4}"},
      {600, first + ",dl_dst=0:0:0:0:{5:x}:{6:x}/0:0:0:0:ff:ff"},
      {600, last + ",dl_dst=2:0:{5:x}:{6:x}:0:0/ff:ff:ff:ff:0:0"},
      {600, first + ",dl_src=0:0:0:0:{5:x}:{6:x}/0:0:0:0:ff:ff"},
      {600, last + ",dl_src=2:0:{5:x}:{6:x}:0:0/ff:ff:ff:ff:0:0"}};
  std::mt19937 random(1);
  const auto word = [&random] { return random() & 0xffff; };
  std::string flows;
  int priority = 2000;
  for (const auto& [count, match] : groups) {
    for (int i = 1; i <= count; i++) {
      const auto a = word(), b = word(), c = word(), d = word();
      flows += fmt::format("priority={},tcp6,", priority);
      flows +=
          fmt::format(fmt::runtime(match), a, b, c, d, i, i / 256, i % 256);
      flows += ",actions=drop\n";
    }
    priority--;
  }
  return flows;
}

}  // namespace openflow_test
