// SPDX-License-Identifier: BSD-3-Clause
//
// The fields of a packet's key under their names in flow text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "switch/flow/match.h"

namespace ofswitch {

struct NamedField {
  std::string name;
  std::string value;

  bool operator==(const NamedField&) const = default;
};

// What a packet of this key has, lowest layer first.
std::vector<NamedField> fieldsOf(const Match& key);

// A field in which a key differs from what is wanted.
struct FieldDifference {
  std::string name;
  std::string wanted;
  std::string found;

  bool operator==(const FieldDifference&) const = default;
};

// Where `key` does not meet `match`. Empty: the flow matches.
std::vector<FieldDifference> differences(const Match& match, const Match& key);
// Only how many there are.
int countDifferences(const Match& match, const Match& key);

// What a flow's rewrites have made of a frame: `wanted` is the field after
// them, `found` before. A tag that came or went is compared with "none".
std::vector<FieldDifference> rewrittenFields(std::string_view before,
                                             std::string_view after);

}  // namespace ofswitch
