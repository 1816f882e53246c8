// SPDX-License-Identifier: BSD-3-Clause
//
// What the tests of the flow text share.
#pragma once

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <string>

#include "switch/flow/flow_reader.h"
#include "switch/flow/refused.h"

namespace ofswitch {

// The reason why a line is refused; empty when it is accepted.
inline std::string refusalOf(const std::string& line,
                             FlowReaderOptions options = {}) {
  try {
    FlowReader(options).readLine(line);
    return {};
  } catch (const Refused& refused) {
    return refused.what();
  }
}

// Compares a message with its expected text, and shows the difference.
template <class Message>
testing::AssertionResult isMessage(const Message& message,
                                   const std::string& text) {
  Message expected;
  if (!google::protobuf::TextFormat::ParseFromString(text, &expected)) {
    return testing::AssertionFailure() << "not a message text: " << text;
  }
  std::string difference;
  google::protobuf::util::MessageDifferencer differencer;
  // An unset sub-message reads as an empty one.
  differencer.set_message_field_comparison(
      google::protobuf::util::MessageDifferencer::EQUIVALENT);
  differencer.ReportDifferencesToString(&difference);
  if (differencer.Compare(expected, message)) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << difference;
}

}  // namespace ofswitch
