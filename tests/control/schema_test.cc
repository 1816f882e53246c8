// SPDX-License-Identifier: BSD-3-Clause
//
// The messages of the commands: the names by which other programs know their
// fields, in the order in which the module takes them.
#include <gmock/gmock.h>
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "openflow.pb.h"
#include "pb/bess_msg.pb.h"
#include "pb/error.pb.h"

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using testing::ElementsAre;
using testing::ElementsAreArray;

// "repeated uint32 ogate", as one would declare it.
std::string declaration(const FieldDescriptor& field) {
  std::string text = field.is_repeated() ? "repeated " : "";
  if (field.message_type() != nullptr) {
    text += field.message_type()->name();
  } else if (field.enum_type() != nullptr) {
    text += field.enum_type()->name();
  } else {
    text += field.type_name();
  }
  return text + " " + field.name();
}

template <typename Message>
std::vector<std::string> fieldsOf() {
  const Descriptor* type = Message::descriptor();
  std::vector<std::string> fields;
  for (int i = 0; i < type->field_count(); i++) {
    fields.push_back(declaration(*type->field(i)));
  }
  return fields;
}

std::vector<std::string> ofType(const std::string& type,
                                const std::vector<std::string>& names) {
  std::vector<std::string> fields;
  for (const std::string& name : names) fields.push_back(type + " " + name);
  return fields;
}

TEST(Schema, Updates) {
  EXPECT_THAT(fieldsOf<quil::pb::OpenFlowUpdateFlowsArg>(),
              ElementsAre("repeated OpenFlowAddFlow adds",
                          "repeated OpenFlowDeleteFlow deletes",
                          "uint32 tableId", "OpenFlowType flowType"));
  EXPECT_THAT(fieldsOf<quil::pb::OpenFlowAddFlow>(),
              ElementsAre("OfMatch match", "OfAction action", "uint32 flowId",
                          "uint32 priority", "uint32 packetCounterId",
                          "uint32 byteCounterId"));
  EXPECT_THAT(fieldsOf<quil::pb::OpenFlowDeleteFlow>(),
              ElementsAre("uint32 flowId"));
}

TEST(Schema, Matches) {
  EXPECT_THAT(fieldsOf<quil::pb::OfMatch>(),
              ElementsAre("OfMatchFields fields", "OfMatchValues values"));
  EXPECT_THAT(
      fieldsOf<quil::pb::OfMatchFields>(),
      ElementsAreArray(ofType(
          "bool", {"ethDst", "ethSrc", "ethType", "vlanVid", "vlanPcp", "ipTos",
                   "ipTtl", "ipProto", "ipv4Src", "ipv4Dst", "ipv6Src",
                   "ipv6Dst", "l4SrcPort", "l4DstPort", "tcpFlags", "icmpType",
                   "icmpCode", "arpTpa", "metadata"})));
  EXPECT_THAT(
      fieldsOf<quil::pb::OfMatchValues>(),
      ElementsAre("bytes ethDst", "bytes ethDstMask", "bytes ethSrc",
                  "bytes ethSrcMask", "uint32 ethType", "uint32 vlanVid",
                  "uint32 vlanVidMask", "uint32 vlanPcp", "uint32 ipTos",
                  "uint32 ipTosMask", "uint32 ipTtl", "uint32 ipTtlMask",
                  "uint32 ipProto", "uint32 ipv4Src", "uint32 ipv4SrcMask",
                  "uint32 ipv4Dst", "uint32 ipv4DstMask", "bytes ipv6Src",
                  "bytes ipv6SrcMask", "bytes ipv6Dst", "bytes ipv6DstMask",
                  "uint32 l4SrcPort", "uint32 l4DstPort", "uint32 tcpFlags",
                  "uint32 tcpFlagsMask", "uint32 icmpType", "uint32 icmpCode",
                  "uint32 arpTpa", "uint32 arpTpaMask", "uint64 metadata"));
}

TEST(Schema, Actions) {
  EXPECT_THAT(fieldsOf<quil::pb::OfAction>(),
              ElementsAre("OfActionFields fields", "OfActionValues values"));
  EXPECT_THAT(
      fieldsOf<quil::pb::OfActionFields>(),
      ElementsAreArray(ofType("bool", {"setEthDst",       "setEthSrc",
                                       "setVlanVid",      "setVlanPcp",
                                       "setIpTos",        "setIpv4Src",
                                       "setIpv4Dst",      "setL4SrcPort",
                                       "setL4DstPort",    "setIcmpType",
                                       "setIcmpCode",     "setOutputAll",
                                       "setOutputFlood",  "setOutputPort",
                                       "setOutputInPort", "setOutputController",
                                       "setOutputDrop",   "popVlan",
                                       "decTtl",          "gotoTbl"})));
  EXPECT_THAT(
      fieldsOf<quil::pb::OfActionValues>(),
      ElementsAre("repeated uint32 ogate", "bytes ethDst", "bytes ethSrc",
                  "uint32 vlanVid", "uint32 vlanPcp", "uint32 ipTos",
                  "uint32 ipv4Src", "uint32 ipv4Dst", "uint32 l4SrcPort",
                  "uint32 l4DstPort", "uint32 icmpType", "uint32 icmpCode",
                  "uint32 nextTbl", "bool outputControllerTrap",
                  "uint32 outputControllerReason"));
}

TEST(Schema, BindingsAndStatistics) {
  EXPECT_THAT(
      fieldsOf<quil::pb::OpenFlowAclArg>(),
      ElementsAre("uint32 tableId", "uint32 aclId", "uint32 ipv6AclId"));
  EXPECT_THAT(fieldsOf<quil::pb::OpenFlowGetStatsArg>(),
              ElementsAre("uint32 tableId"));
  EXPECT_THAT(
      fieldsOf<quil::pb::OpenFlowGetStatsRespArg>(),
      ElementsAreArray(ofType(
          "uint64", {"numFlows", "numIpv6Flows", "updateFailures", "reserved1",
                     "reserved2", "aclCreateFailures", "aclAddRulesFailures",
                     "aclBuildFailures", "classifyErrors", "noAclCtx",
                     "noClassifier", "batchDrops", "tableMisses",
                     "spareCounter", "dropActions", "noOutputDrops"})));
}

TEST(Schema, TypesOfFlows) {
  EXPECT_EQ(quil::pb::OPENFLOW_TYPE_IPV4, 0);
  EXPECT_EQ(quil::pb::OPENFLOW_TYPE_IPV6, 1);
  EXPECT_EQ(quil::pb::OpenFlowType_descriptor()->value_count(), 2);
}

// Values outside the enumeration arrive, and what is not set reads as zero.
TEST(Schema, IsProto3) {
  const Descriptor* type = quil::pb::OpenFlowUpdateFlowsArg::descriptor();
  EXPECT_EQ(type->full_name(), "quil.pb.OpenFlowUpdateFlowsArg");
  EXPECT_EQ(type->file()->syntax(),
            google::protobuf::FileDescriptor::SYNTAX_PROTO3);
  for (int i = 0; i < type->file()->message_type_count(); i++) {
    const Descriptor* message = type->file()->message_type(i);
    for (int f = 0; f < message->field_count(); f++) {
      EXPECT_EQ(message->field(f)->has_presence(),
                !message->field(f)->is_repeated() &&
                    message->field(f)->message_type() != nullptr)
          << message->field(f)->full_name();
    }
  }
}

TEST(Schema, AnswersOfTheHost) {
  EXPECT_THAT(fieldsOf<bess::pb::EmptyArg>(), ElementsAre());
  EXPECT_THAT(fieldsOf<bess::pb::Error>(),
              ElementsAre("int32 code", "string errmsg"));
  EXPECT_THAT(fieldsOf<bess::pb::CommandResponse>(),
              ElementsAre("Error error", "Any data"));
}

}  // namespace
