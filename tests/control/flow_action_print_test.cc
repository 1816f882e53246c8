// SPDX-License-Identifier: BSD-3-Clause
//
// How an action record prints in traces.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>

#include "modules/openflow/translate/flow_action.h"

namespace {

template <class Printable>
std::string printed(const Printable& printable) {
  std::ostringstream out;
  out << printable << " " << 255;
  const std::string text = out.str();
  EXPECT_EQ(text.substr(text.size() - 4), " 255") << "decimal again";
  return text.substr(0, text.size() - 4);
}

OfActionFields fieldsWith(uint32_t bits) {
  OfActionFields fields;
  memcpy(&fields, &bits, sizeof(fields));
  return fields;
}

TEST(FlowActionPrint, Fields) {
  EXPECT_EQ(printed(fieldsWith(0)),
            " setEthDst: 0, setEthSrc: 0, setVlanVid: 0, setVlanPcp: 0, "
            "setIpTos: 0, setIpv4Src: 0, setIpv4Dst: 0, setL4SrcPort: 0, "
            "setL4DstPort: 0, setIcmpType: 0, setIcmpCode: 0, "
            "setOutputPort: 0, setOutputInPort: 0, setOutputController: 0, "
            "setOutputDrop: 0, popVlan: 0, decTtl: 0, gotoTbl: 0");
}

TEST(FlowActionPrint, EachFieldIsItsBit) {
  const char* labels[] = {"setEthDst",       "setEthSrc",
                          "setVlanVid",      "setVlanPcp",
                          "setIpTos",        "setIpv4Src",
                          "setIpv4Dst",      "setL4SrcPort",
                          "setL4DstPort",    "setIcmpType",
                          "setIcmpCode",     nullptr,
                          nullptr,           "setOutputPort",
                          "setOutputInPort", "setOutputController",
                          "setOutputDrop",   "popVlan",
                          "decTtl",          "gotoTbl"};
  const std::string none = printed(fieldsWith(0));
  for (int i = 0; i < 20; i++) {
    std::string expected = none;
    if (labels[i] != nullptr) {
      const std::string label = std::string(" ") + labels[i] + ": ";
      expected[expected.find(label) + label.size()] = '1';
    }
    EXPECT_EQ(printed(fieldsWith(uint32_t{1} << i)), expected) << i;
  }
}

TEST(FlowActionPrint, ValuesThatAreZero) {
  using namespace std::string_literals;
  EXPECT_EQ(printed(OfActionValues{}),
            "ethDst: 00:00:00:00:00:00, ethSrc: 00:00:00:00:00:00, "
            "vlanVid: 0x0000, vlanPcp: \0, ipTos: \0, ipv4Src: 0x00000000, "
            "ipv4Dst: 0x00000000, l4SrcPort: 0x0000, l4DstPort: 0x0000, "
            "icmpType: \0, icmpCode: \0, nextTbl: \0, outputControllerTrap: 0, "
            "outputControllerReason: \0, numOutputGates: \0"s);
}

TEST(FlowActionPrint, Values) {
  OfActionValues values{};
  memcpy(values.ethDst, "\x02\x00\x5e\x00\x53\x01", 6);
  memcpy(values.ethSrc, "\xfe\xdc\xba\x98\x76\x54", 6);
  memcpy(&values.vlanVid, "\x0a\xbc", 2);
  values.vlanPcp = 'p';
  values.ipTos = 't';
  memcpy(&values.ipv4Src, "\x0a\x00\x00\x01", 4);
  memcpy(&values.ipv4Dst, "\xc0\xa8\x01\xfe", 4);
  memcpy(&values.l4SrcPort, "\x00\x50", 2);
  memcpy(&values.l4DstPort, "\xc0\x01", 2);
  values.icmpType = 'y';
  values.icmpCode = 'c';
  values.nextTbl = 'n';
  values.outputControllerTrap = true;
  values.outputControllerReason = 'r';
  values.numOutputGates = '\x02';
  values.ogate[0] = 10;
  values.ogate[1] = 65535;
  values.ogate[2] = 3;
  EXPECT_EQ(
      printed(values),
      "ethDst: 02:00:5e:00:53:01, ethSrc: fe:dc:ba:98:76:54, vlanVid: 0x0abc, "
      "vlanPcp: p, ipTos: t, ipv4Src: 0x0a000001, ipv4Dst: 0xc0a801fe, "
      "l4SrcPort: 0x0050, l4DstPort: 0xc001, icmpType: y, icmpCode: c, "
      "nextTbl: n, outputControllerTrap: 1, outputControllerReason: r, "
      "numOutputGates: \x02, ogate: 10, ogate: 65535");
}

TEST(FlowActionPrint, LeavesTheStreamDecimalAndBlankFilled) {
  std::ostringstream out;
  out << OfActionValues{};
  EXPECT_EQ(out.fill(), ' ');
  EXPECT_TRUE(out.flags() & std::ios::dec);
  EXPECT_FALSE(out.flags() & (std::ios::hex | std::ios::uppercase));
  EXPECT_EQ(out.width(), 0);
}

}  // namespace
