// SPDX-License-Identifier: BSD-3-Clause
#include "switch/control/message_codec.h"

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "switch.pb.h"
#include "switch/control/call_status.h"
#include "switch/flow/refused.h"
#include "switch/live/live_switch.h"

namespace ofswitch {
namespace {

struct Outcome {
  std::string text;  // empty: taken
  bool isTooLong = false;

  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << outcome.text << (outcome.isTooLong ? " (too long)" : "");
}

Outcome decoded(const std::string& bytes, const MessageLimits& limits,
                pb::FlowChange* change) {
  const grpc::Slice slice(bytes);
  try {
    decode(grpc::ByteBuffer(&slice, 1), limits, change);
  } catch (const BadMessage& bad) {
    return {bad.what(), bad.isTooLong};
  }
  return {};
}

Outcome decoded(const std::string& bytes, const MessageLimits& limits) {
  pb::FlowChange change;
  return decoded(bytes, limits, &change);
}

Outcome checked(const std::string& bytes, const MessageLimits& limits) {
  try {
    checkFields(bytes, limits, *pb::FlowChange::descriptor());
  } catch (const BadMessage& bad) {
    return {bad.what(), bad.isTooLong};
  }
  return {};
}

TEST(MessageCodec, TakesMessagesUpToALength) {
  pb::FlowChange change;
  change.set_text("12345678");
  const std::string bytes = change.SerializeAsString();
  ASSERT_EQ(bytes.size(), 10u);
  const Outcome tooLong = {"the request has 10 bytes, at most 9 are taken",
                           true};
  for (const auto& take : {+[](const std::string&one, const MessageLimits&l) {
                             return decoded(one, l);
                           },
                           +[](const std::string&one, const MessageLimits&l) {
                             return checked(one, l);
                           }}) {
    EXPECT_EQ(take(bytes, {10, 9}), Outcome());
    EXPECT_EQ(take(bytes, {9, 9}), tooLong);
  }
  pb::FlowChange back;
  EXPECT_EQ(decoded(bytes, {10, 9}, &back), Outcome());
  EXPECT_EQ(back.text(), "12345678");
}

// A message inside counts, and what it has.
TEST(MessageCodec, TakesSoManyFields) {
  pb::FlowChange change;
  change.set_text("x");
  change.add_flows()->set_table(3);
  change.add_flows();
  const std::string bytes = change.SerializeAsString();
  const Outcome tooMany = {"the request has more than 3 fields", true};
  EXPECT_EQ(decoded(bytes, {100, 4}), Outcome());
  EXPECT_EQ(decoded(bytes, {100, 3}), tooMany);
  EXPECT_EQ(checked(bytes, {100, 4}), Outcome());
  EXPECT_EQ(checked(bytes, {100, 3}), tooMany);
}

// Of a type that can hold itself, as none that is served does yet.
TEST(MessageCodec, TakesMessagesInsideEachOtherToADepth) {
  using google::protobuf::DescriptorProto;
  const auto nested = [](int depth) {
    DescriptorProto message;
    DescriptorProto* inner = &message;
    for (int i = 0; i < depth; i++) inner = inner->add_nested_type();
    return message.SerializeAsString();
  };
  const auto& type = *DescriptorProto::descriptor();
  EXPECT_NO_THROW(checkFields(nested(32), kSmallMessage, type));
  EXPECT_THROW(checkFields(nested(33), kSmallMessage, type), BadMessage);
}

TEST(MessageCodec, RefusesBytesThatAreNoMessage) {
  const Outcome malformed = {"the bytes of the request are no FlowChange",
                             false};
  const std::string tagZero(1, '\0');
  for (const std::string& bytes :
       {std::string("\x22\x05xx"), std::string("\x22\x02\x28"), tagZero,
        std::string("\x12\x05xx"), std::string("\x08"), std::string("\x0b"),
        std::string("\x0c"), std::string("\x22\x01\x0b")}) {
    EXPECT_EQ(checked(bytes, kSmallMessage), malformed);
    EXPECT_EQ(decoded(bytes, kSmallMessage), malformed);
  }
  EXPECT_EQ(checked("\x12\x02\xc3\x28", kSmallMessage),
            (Outcome{"text is not in UTF-8", false}));
  // Lengths that no message has.
  for (const char* bytes :
       {"\x22\xff\xff\xff\xff\x0f", "\x22\x80\x80\x80\x80\x08",
        "\x12\xff\xff\xff\xff\x0f"}) {
    EXPECT_EQ(checked(bytes, kSmallMessage), malformed);
    EXPECT_EQ(decoded(bytes, kSmallMessage), malformed);
  }
  // A length in more bytes than it needs, which only the parser minds.
  for (const std::string field : {"\x0a", "\x12", "\x22"}) {
    const std::string bytes = field + std::string("\x80\x80\x80\x80\x80\0", 6);
    EXPECT_EQ(checked(bytes, kSmallMessage), Outcome());
    EXPECT_EQ(decoded(bytes, kSmallMessage), malformed);
  }
  // Known fields of another kind are as good as unknown ones.
  EXPECT_EQ(checked("\x20\x05\x10\x07", kSmallMessage), Outcome());
  EXPECT_EQ(decoded("\x20\x05\x10\x07", kSmallMessage), Outcome());
  // What is not known is passed over, and what follows a message is read.
  EXPECT_EQ(
      checked(std::string("\xfa\x01\x02xx\x22\0\x12\x01x", 10), kSmallMessage),
      Outcome());
}

TEST(MessageCodec, RefusesABufferThatHoldsNothing) {
  pb::FlowChange change;
  try {
    decode(grpc::ByteBuffer(), kSmallMessage, &change);
    ADD_FAILURE() << "it was taken";
  } catch (const BadMessage& bad) {
    EXPECT_STREQ(bad.what(), "the bytes of the request are no FlowChange");
    EXPECT_FALSE(bad.isTooLong);
  }
}

TEST(CallStatus, IsOneLineThatAHeaderCanCarry) {
  const auto text = [](const std::string& one) {
    return callStatus(grpc::StatusCode::INTERNAL, one).error_message();
  };
  EXPECT_EQ(text("two\nlines\tand\x1f\x01 more"), "two lines and   more");
  EXPECT_EQ(text("\u00e4 is a letter~"), "\u00e4 is a letter~");
  EXPECT_EQ(text(std::string(1000, 'x')), std::string(1000, 'x'));
  EXPECT_EQ(text(std::string(1001, 'x')), std::string(1000, 'x') + "...");
}

TEST(CallStatus, TellsWhoseFaultItIs) {
  const auto status = [](const auto& error) {
    const grpc::Status made = statusOf(std::make_exception_ptr(error));
    return std::to_string(made.error_code()) + " " + made.error_message();
  };
  EXPECT_EQ(status(BadMessage("a", true)), "8 a");
  EXPECT_EQ(status(BadMessage("a", false)), "3 a");
  EXPECT_EQ(status(BadRequest("b")), "3 b");
  EXPECT_EQ(status(Refused("c")), "3 c");
  EXPECT_EQ(status(std::bad_alloc()),
            "8 there is not enough memory for this request");
  EXPECT_EQ(status(std::runtime_error("d")), "13 d");
  EXPECT_EQ(status(7), "13 something unknown failed");
}

// One text many times over, so that it takes no memory.
class FlowOfOneText {
 public:
  FlowOfOneText() = default;
  // The text is not the message's to delete.
  ~FlowOfOneText() {
    auto* actions = flow_.mutable_actions();
    actions->UnsafeArenaExtractSubrange(0, actions->size(), nullptr);
  }
  FlowOfOneText(const FlowOfOneText&) = delete;
  FlowOfOneText& operator=(const FlowOfOneText&) = delete;

  void addOnce() { flow_.mutable_actions()->UnsafeArenaAddAllocated(&text_); }
  const pb::FlowEntry& message() const { return flow_; }

 private:
  std::string text_ = std::string(size_t{1} << 20, 'x');
  pb::FlowEntry flow_;
};

TEST(MessageCodec, RefusesAReplyThatIsLongerThanAMessageCanBe) {
  FlowOfOneText flow;
  constexpr int kMost = 2047;  // and less than 1 MiB beside them
  for (int i = 0; i < kMost; i++) flow.addOnce();
  EXPECT_LE(flow.message().ByteSizeLong(), size_t{INT_MAX});
  flow.addOnce();
  try {
    encode(flow.message());
    ADD_FAILURE() << "it has " << flow.message().ByteSizeLong() << " bytes";
  } catch (const BadMessage& bad) {
    EXPECT_STREQ(bad.what(), "the reply is longer than a message can be");
    EXPECT_TRUE(bad.isTooLong);
  }
}

}  // namespace
}  // namespace ofswitch
