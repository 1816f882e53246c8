// SPDX-License-Identifier: BSD-3-Clause
#include "switch/live/flow_filter.h"

#include <algorithm>
#include <set>
#include <vector>

#include "switch/flow/match_parser.h"
#include "switch/flow/numbers.h"
#include "switch/flow/refused.h"
#include "switch/flow/words.h"

namespace ofswitch {
namespace {

template <class T>
bool covers(const Masked<T>& wide, const Masked<T>& narrow) {
  return (wide.mask & ~narrow.mask) == 0 &&
         (narrow.value & wide.mask) == wide.value;
}

bool sendsTo(const Flow& flow, uint16_t port) {
  return std::ranges::any_of(flow.actions, [&](const Action& action) {
    return (action.kind == ActionKind::kOutput && action.value == port) ||
           (action.kind == ActionKind::kController && port == 0);
  });
}

struct FilterReader {
  FlowFilter filter;

  // Takes a word that is about the flow itself; false for a match field.
  bool take(const Word& word) {
    if (word.key == "table") {
      filter.table = static_cast<uint8_t>(
          parseNumber(word.value, kNumTables - 1, word.text));
    } else if (word.key == "cookie") {
      takeCookie(word);
    } else if (word.key == "out_port") {
      filter.outPort = word.value == "controller"
                           ? uint16_t{0}
                           : static_cast<uint16_t>(
                                 parseNumber(word.value, kMaxPort, word.text));
    } else if (word.key == "priority") {
      if (!filter.strict) {
        refuse("{}: a priority selects flows only with --strict", word.text);
      }
      filter.priority =
          static_cast<uint16_t>(parseNumber(word.value, 0xffff, word.text));
    } else if (word.key == "actions" || word.key == "action") {
      refuse("{}: flows are not selected by their actions; write out_port=PORT",
             word.text);
    } else if (word.key == "out_group") {
      refuse("{}: the module has no groups", word.text);
    } else {
      return false;
    }
    return true;
  }

  void takeCookie(const Word& word) {
    filter.cookie =
        word.value.ends_with("/-1")
            ? Masked<uint64_t>::exact(
                  parseNumber(word.value.substr(0, word.value.size() - 3),
                              ~uint64_t{0}, word.text))
            : parseMaskedNumber(word.value, ~uint64_t{0}, word.text);
  }
};

}  // namespace

bool covers(const Match& w, const Match& n) {
  return covers(w.inPort, n.inPort) && covers(w.ethSrc, n.ethSrc) &&
         covers(w.ethDst, n.ethDst) && covers(w.ethType, n.ethType) &&
         covers(w.vlanTci, n.vlanTci) && covers(w.ipProto, n.ipProto) &&
         covers(w.ipTos, n.ipTos) && covers(w.ipTtl, n.ipTtl) &&
         covers(w.ipv4Src, n.ipv4Src) && covers(w.ipv4Dst, n.ipv4Dst) &&
         covers(w.ipv6Src, n.ipv6Src) && covers(w.ipv6Dst, n.ipv6Dst) &&
         covers(w.arpTpa, n.arpTpa) && covers(w.l4Src, n.l4Src) &&
         covers(w.l4Dst, n.l4Dst) && covers(w.tcpFlags, n.tcpFlags) &&
         covers(w.icmpType, n.icmpType) && covers(w.icmpCode, n.icmpCode);
}

bool FlowFilter::selects(const Flow& flow) const {
  if (table && *table != flow.table) return false;
  if ((flow.cookie & cookie.mask) != cookie.value) return false;
  if (outPort && !sendsTo(flow, *outPort)) return false;
  return strict ? flow.priority == priority && flow.match == match
                : covers(match, flow.match);
}

FlowFilter parseFlowFilter(std::string_view text, bool strict) {
  FilterReader reader;
  reader.filter.strict = strict;
  std::vector<Word> fields;
  std::set<std::string_view> seen;
  for (const Word& word : splitWords(text)) {
    if (!reader.take(word)) {
      fields.push_back(word);
    } else if (!seen.insert(word.key).second) {
      refuse("{}: {} stands in the filter twice", word.text, word.key);
    }
  }
  reader.filter.match = parseMatch(fields);
  return reader.filter;
}

}  // namespace ofswitch
