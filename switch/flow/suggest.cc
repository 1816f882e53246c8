// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/suggest.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

namespace ofswitch {

size_t editDistance(std::string_view a, std::string_view b) {
  // distance[i][j]: between the first i characters of a and j of b.
  std::vector<std::vector<size_t>> distance(a.size() + 1,
                                            std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); i++) distance[i][0] = i;
  for (size_t j = 0; j <= b.size(); j++) distance[0][j] = j;
  for (size_t i = 1; i <= a.size(); i++) {
    for (size_t j = 1; j <= b.size(); j++) {
      const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
      distance[i][j] = std::min({distance[i - 1][j] + 1, distance[i][j - 1] + 1,
                                 distance[i - 1][j - 1] + change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        distance[i][j] = std::min(distance[i][j], distance[i - 2][j - 2] + 1);
      }
    }
  }
  return distance[a.size()][b.size()];
}

std::string suggest(std::string_view word,
                    std::span<const std::string_view> known) {
  constexpr size_t kLongestWord = 32;  // beyond it nobody mistyped a name
  if (word.empty() || word.size() > kLongestWord) return {};
  std::string_view nearest;
  size_t least = word.size() / 4 + 2;  // must be nearer than this
  for (const std::string_view candidate : known) {
    const size_t distance = editDistance(word, candidate);
    if (distance < least) {
      least = distance;
      nearest = candidate;
    }
  }
  if (nearest.empty()) return {};
  return fmt::format(", did you mean \"{}\"?", nearest);
}

}  // namespace ofswitch
