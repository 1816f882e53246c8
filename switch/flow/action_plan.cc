// SPDX-License-Identifier: BSD-3-Clause
#include "switch/flow/action_plan.h"

#include <string>

#include "switch/flow/flow_printer.h"
#include "switch/flow/refused.h"

namespace ofswitch {
namespace {

constexpr uint8_t kDscpBits = 0xfc;
constexpr uint8_t kEcnBits = 0x03;

enum class Tag { kUnknown, kPresent, kAbsent };

// Walks the list and keeps what the packet looks like at each step.
class Planner {
 public:
  Planner(const Flow& flow, std::span<const std::string_view> words)
      : flow_(flow),
        words_(words),
        tag_(flow.match.isTagged() ? Tag::kPresent : Tag::kUnknown) {}

  ActionPlan run() {
    for (size_t i = 0; i < flow_.actions.size(); i++) {
      const Action& action = flow_.actions[i];
      word_ = words_.empty() ? actionText(action, flow_.match)
                             : std::string(words_[i]);
      if (plan_.nextTable) {
        refuse("{}: nothing may follow goto_table", word_);
      }
      step(action);
    }
    // Rewrites behind the last output change nothing that anyone sees.
    if (sent_) plan_.rewrites = *sent_;
    return std::move(plan_);
  }

 private:
  void step(const Action& action) {
    switch (action.kind) {
      case ActionKind::kOutput:
        send();
        plan_.outputs.push_back({false, static_cast<uint16_t>(action.value)});
        break;
      case ActionKind::kAll:
      case ActionKind::kFlood:
        send();
        plan_.outputs.push_back({true, 0});
        break;
      case ActionKind::kInPort:
        send();
        if (plan_.inPort) refuse("{}: the module sends back once only", word_);
        plan_.inPort = true;
        break;
      case ActionKind::kController:
        send();
        if (plan_.controller) {
          refuse("{}: the module sends to the controller once only", word_);
        }
        plan_.controller = static_cast<ControllerReason>(action.value);
        break;
      case ActionKind::kDrop:
        if (flow_.actions.size() != 1) {
          refuse("{}: no other action may stand beside it", word_);
        }
        plan_.drop = true;
        break;
      case ActionKind::kGoto:
        if (action.value <= flow_.table) {
          refuse("{}: packets go to later tables only, and this is table {}",
                 word_, flow_.table);
        }
        send();
        plan_.nextTable = static_cast<uint8_t>(action.value);
        break;
      default:
        rewrite(action);
    }
  }

  // The packet leaves as it is now.
  void send() {
    Rewrites now = now_;
    if (pcpNeedsTag_) {
      refuse(
          "{}: on an untagged frame the module sets no priority; match a VLAN "
          "tag (dl_vlan=VID), or add mod_vlan_vid:VID",
          pcpWord_);
    }
    if (dscp_ || ecn_) now.ipTos = tos();
    if (!sent_) {
      sent_ = now;
      sentWord_ = word_;
    } else if (*sent_ != now) {
      refuse(
          "{}: the module does all rewrites before the first output, so {} "
          "would send the rewritten packet too; move what follows {} to a "
          "later table (goto_table)",
          word_, sentWord_, sentWord_);
    }
  }

  // The module writes the TOS byte whole.
  uint8_t tos() const {
    const Masked<uint8_t>& match = flow_.match.ipTos;
    if (!dscp_ && (match.mask & kDscpBits) != kDscpBits) {
      refuse(
          "{}: the module writes DSCP and ECN together; match nw_tos too, or "
          "add mod_nw_tos:TOS",
          tosWord_);
    }
    if (!ecn_ && (match.mask & kEcnBits) != kEcnBits) {
      refuse(
          "{}: the module writes DSCP and ECN together; match nw_ecn too, or "
          "add mod_nw_ecn:ECN",
          tosWord_);
    }
    return dscp_.value_or(match.value & kDscpBits) |
           ecn_.value_or(match.value & kEcnBits);
  }

  void rewrite(const Action& action) {
    switch (action.kind) {
      case ActionKind::kPopVlan:
        popVlan();
        break;
      case ActionKind::kPushVlan:
        pushVlan();
        break;
      case ActionKind::kEditVlanVid:
        needsTag("mod_vlan_vid:VID");
        [[fallthrough]];
      case ActionKind::kSetVlanVid:
        now_.vlanVid = static_cast<uint16_t>(action.value);
        tag_ = Tag::kPresent;
        pcpNeedsTag_ = false;
        break;
      case ActionKind::kEditVlanPcp:
        needsTag("mod_vlan_vid:VID,mod_vlan_pcp:PRIORITY");
        [[fallthrough]];
      case ActionKind::kSetVlanPcp:
        setVlanPcp(static_cast<uint8_t>(action.value));
        break;
      case ActionKind::kSetEthSrc:
        now_.ethSrc = action.value;
        break;
      case ActionKind::kSetEthDst:
        now_.ethDst = action.value;
        break;
      case ActionKind::kSetIpv4Src:
        needsKnownL3();
        now_.ipv4Src = static_cast<uint32_t>(action.value);
        break;
      case ActionKind::kSetIpv4Dst:
        needsKnownL3();
        now_.ipv4Dst = static_cast<uint32_t>(action.value);
        break;
      case ActionKind::kSetDscp:
        dscp_ = static_cast<uint8_t>(action.value);
        tosWord_ = word_;
        break;
      case ActionKind::kSetEcn:
        ecn_ = static_cast<uint8_t>(action.value);
        tosWord_ = word_;
        break;
      case ActionKind::kSetL4Src:
        now_.l4Src = static_cast<uint16_t>(action.value);
        break;
      case ActionKind::kSetL4Dst:
        now_.l4Dst = static_cast<uint16_t>(action.value);
        break;
      case ActionKind::kSetIcmpType:
        now_.icmpType = static_cast<uint8_t>(action.value);
        break;
      case ActionKind::kSetIcmpCode:
        now_.icmpCode = static_cast<uint8_t>(action.value);
        break;
      case ActionKind::kDecTtl:
        needsKnownL3();
        if (now_.decTtl) refuse("{}: the module decrements once only", word_);
        now_.decTtl = true;
        break;
      default:
        break;  // the outputs, handled in step
    }
  }

  void popVlan() {
    if (now_.popVlan) refuse("{}: the module removes one tag only", word_);
    if (now_.vlanVid || now_.vlanPcp) {
      refuse(
          "{}: the module removes the tag before it writes one; put "
          "strip_vlan first, or leave the VLAN rewrites before it out",
          word_);
    }
    if (l3Rewritten_ && flow_.match.ethType.any()) refuseHiddenL3();
    now_.popVlan = true;
    // A known Ethernet type is never that of a tag: at most one tag was
    // there, and now there is none.
    tag_ = flow_.match.ethType.any() ? Tag::kUnknown : Tag::kAbsent;
  }

  void pushVlan() {
    if (tag_ != Tag::kAbsent) {
      refuse(
          "{}: the module keeps one tag, and the frame may have one "
          "already; write mod_vlan_vid:VID to tag an untagged frame",
          word_);
    }
    now_.vlanVid = 0;
    tag_ = Tag::kPresent;
  }

  void setVlanPcp(uint8_t pcp) {
    if (tag_ == Tag::kUnknown) {
      pcpNeedsTag_ = true;
      pcpWord_ = word_;
    } else if (tag_ == Tag::kAbsent) {
      now_.vlanVid = 0;
    }
    now_.vlanPcp = pcp;
    if (tag_ == Tag::kAbsent) tag_ = Tag::kPresent;
  }

  void needsTag(const char* instead) {
    if (tag_ == Tag::kPresent || pcpNeedsTag_) return;
    refuse(
        "{}: needs a VLAN tag in the match (dl_vlan=VID); write {} to tag "
        "untagged frames too",
        word_, instead);
  }

  // Behind a removed tag there may be a second one, with an IP header that
  // OpenFlow leaves alone and the module would find.
  void needsKnownL3() {
    l3Rewritten_ = true;
    if (now_.popVlan && flow_.match.ethType.any()) refuseHiddenL3();
  }

  [[noreturn]] void refuseHiddenL3() {
    refuse(
        "{}: strip_vlan may uncover an IP header that was behind two tags; "
        "match ip or ipv6",
        word_);
  }

  const Flow& flow_;
  std::span<const std::string_view> words_;
  Tag tag_;
  Rewrites now_;
  std::optional<uint8_t> dscp_;
  std::optional<uint8_t> ecn_;
  bool l3Rewritten_ = false;
  bool pcpNeedsTag_ = false;  // a priority waits for a tag to carry it
  std::string word_;          // the action at hand
  std::string pcpWord_;
  std::string tosWord_;
  std::string sentWord_;
  std::optional<Rewrites> sent_;  // what the outputs so far have sent
  ActionPlan plan_;
};

}  // namespace

ActionPlan planActions(const Flow& flow,
                       std::span<const std::string_view> words) {
  return Planner(flow, words).run();
}

}  // namespace ofswitch
