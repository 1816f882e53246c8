// SPDX-License-Identifier: BSD-3-Clause
//
// Requests from bytes and replies to bytes. A few bytes on the wire can ask for
// a hundred times as many in memory (each empty message of a list takes two
// there), so that requests are measured before they are parsed.
#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/support/byte_buffer.h>

#include <cstddef>
#include <stdexcept>
#include <string>

namespace ofswitch {

// One line for a person.
struct BadMessage : std::runtime_error {
  BadMessage(const std::string& text, bool tooLong)
      : std::runtime_error(text), isTooLong(tooLong) {}

  bool isTooLong;
};

struct MessageLimits {
  size_t bytes;
  size_t fields;  // set ones, those of messages inside counted
};

// A question.
inline constexpr MessageLimits kSmallMessage = {size_t{64} << 10, 4096};
// A change of many flows.
inline constexpr MessageLimits kLargeMessage = {size_t{64} << 20, 4'000'000};

// Throws BadMessage.
void decode(const grpc::ByteBuffer& bytes, const MessageLimits& limits,
            google::protobuf::Message* message);

// The same limits for bytes that stand inside a message.
void checkFields(const std::string& bytes, const MessageLimits& limits,
                 const google::protobuf::Descriptor& type);

grpc::ByteBuffer encode(const google::protobuf::Message& message);

}  // namespace ofswitch
