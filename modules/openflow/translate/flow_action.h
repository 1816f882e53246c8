// SPDX-License-Identifier: BSD-3-Clause
//
// What a flow does to its packets, resolved once when the flow is added: one
// bit an action, every argument in the form in which packets get it.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>

inline constexpr int kMaxOutputGates = 64;

// Bit 0 is the lowest bit of the first byte.
struct OfActionFields {
  uint8_t setEthDst : 1;
  uint8_t setEthSrc : 1;
  uint8_t setVlanVid : 1;
  uint8_t setVlanPcp : 1;
  uint8_t setIpTos : 1;
  uint8_t setIpv4Src : 1;
  uint8_t setIpv4Dst : 1;
  uint8_t setL4SrcPort : 1;
  uint8_t setL4DstPort : 1;
  uint8_t setIcmpType : 1;
  uint8_t setIcmpCode : 1;
  uint8_t setOutputAll : 1;    // to every listed gate but the in-port
  uint8_t setOutputFlood : 1;  // the same
  uint8_t setOutputPort : 1;   // to every listed gate
  uint8_t setOutputInPort : 1;
  uint8_t setOutputController : 1;
  uint8_t setOutputDrop : 1;
  uint8_t popVlan : 1;
  uint8_t decTtl : 1;
  uint8_t gotoTbl : 1;
};
static_assert(sizeof(OfActionFields) == 3);

// What is rewritten, by the part of the packet.
inline constexpr uint32_t kRewriteMacBits = 0x3;  // setEthDst, Src
inline constexpr uint32_t kRewriteTagBits = 1u << 2 | 1u << 17;  // vid, popVlan
inline constexpr uint32_t kRewritePcpBit = 1u << 3;
inline constexpr uint32_t kRewriteIpBits = 0x70 | 1u << 18;  // TOS to dst, TTL
inline constexpr uint32_t kRewriteL4Bits = 0x780;  // setL4SrcPort to IcmpCode
inline constexpr uint32_t kRewriteBits = kRewriteMacBits | kRewriteTagBits |
                                         kRewritePcpBit | kRewriteIpBits |
                                         kRewriteL4Bits;
inline constexpr uint32_t kOutputAllBit = 1u << 11;
inline constexpr uint32_t kOutputFloodBit = 1u << 12;
inline constexpr uint32_t kOutputPortBit = 1u << 13;
inline constexpr uint32_t kOutputDropBit = 1u << 16;
inline constexpr uint32_t kGotoBit = 1u << 19;
// setOutputAll to setOutputDrop, gotoTbl.
inline constexpr uint32_t kOutputBits = 0x3f << 11 | kGotoBit;

// Arguments; "network" ones are stored in network order, ready to be written.
struct OfActionValues {
  uint8_t ethDst[6];
  uint8_t ethSrc[6];
  uint16_t vlanVid;  // network
  uint8_t vlanPcp;
  uint8_t ipTos;
  uint32_t ipv4Src;    // network
  uint32_t ipv4Dst;    // network
  uint16_t l4SrcPort;  // network
  uint16_t l4DstPort;  // network
  uint8_t icmpType;
  uint8_t icmpCode;
  uint8_t nextTbl;
  bool outputControllerTrap;
  uint8_t outputControllerReason;
  uint8_t numOutputGates;
  uint16_t ogate[kMaxOutputGates];  // host order, numOutputGates of them used
};

// Starts on a cache line: the three lines that it fills are its own, and what
// every packet needs (priority, counters, flags, most values) is in the first.
struct alignas(64) OfFlowAction {
  uint32_t priority;  // 0: workers take a match for none
  uint32_t packetCounterId;
  uint32_t byteCounterId;
  OfActionFields fields;
  OfActionValues values;
};
static_assert(sizeof(OfFlowAction) == 192);
static_assert(offsetof(OfFlowAction, fields) == 12);
static_assert(offsetof(OfFlowAction, values) == 16);

// An action's fields as one number, bit i of it being the i-th of them. Several
// flags at once are tested in this form.
inline uint32_t actionBits(const OfFlowAction& action) {
  static_assert(std::endian::native == std::endian::little);
  uint32_t word;  // the byte behind the fields is in it, and cut off again
  std::memcpy(&word,
              reinterpret_cast<const uint8_t*>(&action) +
                  offsetof(OfFlowAction, fields),
              sizeof(word));
  return word & ((1u << 8 * sizeof(OfActionFields)) - 1);
}

// For traces. One-byte arguments are printed as one character, and the bits of
// setOutputAll and setOutputFlood are left out: readers of traces know it so.
std::ostream& operator<<(std::ostream& out, const OfActionFields& fields);
std::ostream& operator<<(std::ostream& out, const OfActionValues& values);
