// SPDX-License-Identifier: BSD-3-Clause
#include "switch/trace/trace_input.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/captures/capture_files.h"

namespace ofswitch {
namespace {

using openflow_test::captureBytes;
using openflow_test::writeFile;

std::string errorOf(const std::string& text) {
  try {
    readPacketArgument(text);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no error";
}

TEST(TraceInput, FlowTextStaysAsItIs) {
  const PacketArgument packet = readPacketArgument("in_port=1,tcp,tp_dst=80");
  EXPECT_EQ(packet.request.text(), "in_port=1,tcp,tp_dst=80");
  for (const char* text : {"arp", "", " ", "0x", "0xg"}) {
    const PacketArgument one = readPacketArgument(text);
    EXPECT_TRUE(one.request.has_text()) << text;
    EXPECT_EQ(one.request.text(), text);
  }
}

TEST(TraceInput, Hexadecimal) {
  EXPECT_FALSE(readPacketArgument("0200").request.has_text());
  EXPECT_EQ(readPacketArgument("0200ff0a").request.frame(),
            std::string("\x02\x00\xff\x0a", 4));
  EXPECT_EQ(readPacketArgument("0x0200FF0A").request.frame(),
            std::string("\x02\x00\xff\x0a", 4));
  EXPECT_EQ(readPacketArgument("02:00 ff:0a\n").request.frame(),
            std::string("\x02\x00\xff\x0a", 4));
  EXPECT_EQ(errorOf("020"),
            "3 hexadecimal digits are no whole number of bytes");
}

TEST(TraceInput, FramesOfCaptures) {
  const openflow_test::ScratchDir dir;
  const std::string file = dir / "a#b.pcap";
  writeFile(file, captureBytes({{1, "first frame of all"},
                                {2, "second one", 1500},
                                {3, "third"}}));
  const PacketArgument first = readPacketArgument(file + "#1");
  EXPECT_EQ(first.request.frame(), "first frame of all");
  EXPECT_EQ(first.note, "");
  const PacketArgument second = readPacketArgument(file + "#2");
  EXPECT_EQ(second.request.frame(), "second one");
  EXPECT_EQ(second.note,
            file + ": frame 2 was captured in part, 10 of 1500 bytes");
  EXPECT_EQ(errorOf(file + "#4"),
            file + ": there is no frame 4, the file has 3");
  for (const char* number :
       {"#0", "#", "#x", "#1x", "#-1", "#99999999999999999999"}) {
    EXPECT_EQ(errorOf(file + number),
              file + number +
                  ": behind # stands the number of a frame, counted from 1");
  }
  EXPECT_EQ(errorOf(dir / "none.pcap#1"),
            (dir / "none.pcap").string() + ": No such file or directory");
  EXPECT_EQ(errorOf("x.pcap"),
            "x.pcap: say which frame of the file, x.pcap#1 for the first");
  EXPECT_EQ(errorOf("x.pcapng"),
            "x.pcapng: say which frame of the file, x.pcapng#1 for the first");
}

// The frames in front of the damage can be traced.
TEST(TraceInput, DamagedCaptures) {
  const openflow_test::ScratchDir dir;
  const std::string file = dir / "cut.pcap";
  const std::string whole = captureBytes({{1, "first"}, {2, "second"}});
  writeFile(file, whole.substr(0, whole.size() - 1));
  EXPECT_EQ(readPacketArgument(file + "#1").request.frame(), "first");
  EXPECT_THAT(errorOf(file + "#2"),
              testing::StartsWith(file + ": after packet 1: truncated"));
}

}  // namespace
}  // namespace ofswitch
