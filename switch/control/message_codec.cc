// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/message_codec.h"

#include <fmt/format.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>
#include <grpcpp/support/proto_buffer_reader.h>
#include <grpcpp/support/slice.h>

#include <climits>

namespace ofswitch {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

constexpr int kDeepest = 32;

[[noreturn]] void malformed(const Descriptor& type) {
  throw BadMessage(
      fmt::format("the bytes of the request are no {}", type.name()), false);
}

// Walks over a message without making anything of it.
class FieldCounter {
 public:
  FieldCounter(const Descriptor& type, size_t most)
      : type_(type), most_(most), left_(most) {}

  void count(CodedInputStream* in) { countMessage(in, &type_, 0); }

 private:
  void countMessage(CodedInputStream* in, const Descriptor* type, int depth) {
    if (depth > kDeepest) malformed(type_);
    while (const uint32_t tag = in->ReadTag()) {
      if (left_-- == 0) {
        throw BadMessage(
            fmt::format("the request has more than {} fields", most_), true);
      }
      const auto wireType = WireFormatLite::GetTagWireType(tag);
      const FieldDescriptor* field =
          type->FindFieldByNumber(WireFormatLite::GetTagFieldNumber(tag));
      if (wireType == WireFormatLite::WIRETYPE_START_GROUP) {
        malformed(type_);  // there are none in what is served here
      }
      if (field != nullptr && field->message_type() != nullptr &&
          wireType == WireFormatLite::WIRETYPE_LENGTH_DELIMITED) {
        uint32_t length = 0;
        if (!in->ReadVarint32(&length) || length > INT_MAX) malformed(type_);
        const auto limit = in->PushLimit(static_cast<int>(length));
        countMessage(in, field->message_type(), depth + 1);
        if (in->BytesUntilLimit() != 0) malformed(type_);
        in->PopLimit(limit);
      } else if (field != nullptr &&
                 field->type() == FieldDescriptor::TYPE_STRING &&
                 wireType == WireFormatLite::WIRETYPE_LENGTH_DELIMITED) {
        checkText(in, *field);
      } else if (!WireFormatLite::SkipField(in, tag)) {
        malformed(type_);
      }
    }
    if (!in->ConsumedEntireMessage()) malformed(type_);
  }

  // The parser would refuse it, too, and write about it to standard error.
  void checkText(CodedInputStream* in, const FieldDescriptor& field) {
    uint32_t length = 0;
    if (!in->ReadVarint32(&length) || length > INT_MAX ||
        !in->ReadString(&text_, static_cast<int>(length))) {
      malformed(type_);
    }
    if (!google::protobuf::internal::IsStructurallyValidUTF8(
            text_.data(), static_cast<int>(text_.size()))) {
      throw BadMessage(fmt::format("{} is not in UTF-8", field.name()), false);
    }
  }

  const Descriptor& type_;
  const size_t most_;
  size_t left_;
  std::string text_;
};

void checkLength(size_t length, const MessageLimits& limits) {
  if (length > limits.bytes) {
    throw BadMessage(fmt::format("the request has {} bytes, at most {} are "
                                 "taken",
                                 length, limits.bytes),
                     true);
  }
}

}  // namespace

void checkFields(const std::string& bytes, const MessageLimits& limits,
                 const Descriptor& type) {
  checkLength(bytes.size(), limits);
  google::protobuf::io::ArrayInputStream stream(bytes.data(),
                                                static_cast<int>(bytes.size()));
  CodedInputStream in(&stream);
  FieldCounter(type, limits.fields).count(&in);
}

void decode(const grpc::ByteBuffer& bytes, const MessageLimits& limits,
            google::protobuf::Message* message) {
  checkLength(bytes.Length(), limits);
  const Descriptor& type = *message->GetDescriptor();
  // The reader wants it so; bytes are counted, not copied.
  grpc::ByteBuffer buffer(bytes);
  {
    grpc::ProtoBufferReader reader(&buffer);
    if (!reader.status().ok()) malformed(type);
    CodedInputStream in(&reader);
    FieldCounter(type, limits.fields).count(&in);
  }
  grpc::ProtoBufferReader reader(&buffer);
  if (!message->ParseFromZeroCopyStream(&reader)) malformed(type);
}

grpc::ByteBuffer encode(const google::protobuf::Message& message) {
  if (message.ByteSizeLong() > INT_MAX) {
    throw BadMessage("the reply is longer than a message can be", true);
  }
  const grpc::Slice slice(message.SerializeAsString());
  return {&slice, 1};
}

}  // namespace ofswitch
