// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>

namespace ofswitch {

enum class ActionKind : uint8_t {
  kOutput,  // value: port
  kInPort,
  kAll,
  kFlood,
  kController,  // value: reason
  kDrop,
  kGoto,  // value: table
  kSetEthSrc,
  kSetEthDst,
  kSetVlanVid,   // tags an untagged frame
  kSetVlanPcp,   // tags an untagged frame
  kEditVlanVid,  // set_field: the frame must carry a tag
  kEditVlanPcp,
  kPopVlan,
  kPushVlan,
  kSetIpv4Src,
  kSetIpv4Dst,
  kSetDscp,  // value: TOS byte with the two ECN bits 0
  kSetEcn,
  kSetL4Src,
  kSetL4Dst,
  kSetIcmpType,
  kSetIcmpCode,
  kDecTtl,
};

// Why a packet goes to the controller, as OpenFlow numbers it.
enum class ControllerReason : uint8_t {
  kNoMatch = 0,
  kAction = 1,
  kInvalidTtl = 2,
};

// One step of an action list. Numbers are in host order; a MAC address is
// the low 48 bits.
struct Action {
  ActionKind kind;
  uint64_t value = 0;

  bool operator==(const Action&) const = default;
};

}  // namespace ofswitch
