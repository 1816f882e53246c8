// SPDX-License-Identifier: BSD-3-Clause
//
// The packet as someone writes it on a command line.
#pragma once

#include <stdexcept>
#include <string>

#include "switch.pb.h"

namespace ofswitch {

// Why an argument names no packet: one line for a person.
struct PacketArgumentError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct PacketArgument {
  pb::TraceRequest request;  // with the packet alone
  std::string note;          // a line to show beside the answer, or empty
};

// Reads flow text ("in_port=1,tcp,tp_dst=80"), bytes in hexadecimal, with or
// without blanks and colons between them, or "FILE#N", the N-th frame of a
// capture file, counted from 1. Throws PacketArgumentError, and another
// std::runtime_error for a file that cannot be read or has no such frame.
PacketArgument readPacketArgument(const std::string& text);

}  // namespace ofswitch
