// SPDX-License-Identifier: BSD-3-Clause
//
// The match fields of a flow line, one row each: its names, and the function
// that adds its constraint.
#pragma once

#include <array>
#include <span>
#include <string_view>

#include "switch/flow/match.h"
#include "switch/flow/refused.h"
#include "switch/flow/words.h"

namespace ofswitch {

// A match while its words are read.
struct MatchBuilder {
  Match match;
  Masked<uint16_t> vlan;      // as OpenFlow has it, with presence bit
  std::string_view vlanWord;  // the last word about it
};

// Fields of the early stages are the prerequisites of the others; they are
// read first, whatever their place in the line.
enum class FieldStage { kEthType, kIpProto, kOther };

struct FieldRow {
  std::array<std::string_view, 2> names;
  FieldStage stage;
  void (*add)(MatchBuilder*, const Word&);
};

std::span<const FieldRow> matchFields();

// Adds a constraint, unless an earlier word says otherwise.
template <class T>
void constrain(Masked<T>* field, Masked<T> more, const Word& word) {
  if (((field->value ^ more.value) & field->mask & more.mask) != 0) {
    refuse("{}: contradicts an earlier word of the flow", word.text);
  }
  field->value |= more.value;
  field->mask |= more.mask;
}

}  // namespace ofswitch
