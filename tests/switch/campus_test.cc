// SPDX-License-Identifier: BSD-3-Clause
//
// The example policy and its captures. Two things speak for the numbers: the
// captures themselves, counted frame by frame without any table, and the
// Linux router that was there when they were recorded. What the policy sends
// out of a port must be, byte for byte, what that router sent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "tests/switch/replay_command.h"

namespace openflow_test {
namespace {

const std::string kCampus = SOURCE_DIR "/examples/campus";
const std::string kArguments =
    "--flows flows.txt --in 1=port1.pcap 2=port2.pcap 3=port3.pcap ";

class Campus : public ReplayCommand {
 protected:
  void play(const std::string& more = "") {
    replayWell(kArguments + more, "cd " + kCampus + " &&");
  }

  // Packets of the flow whose text has all of `words` in it.
  uint64_t flow(const std::vector<std::string>& words) const {
    std::vector<uint64_t> found;
    for (const nlohmann::json& flow : stats_.at("flows")) {
      const std::string text = flow.at("flow");
      if (std::all_of(words.begin(), words.end(), [&](const auto& word) {
            return text.find(word) != std::string::npos;
          })) {
        found.push_back(flow.at("packets"));
      }
    }
    EXPECT_EQ(found.size(), 1u);
    return found.empty() ? 0 : found[0];
  }
};

// A frame as a person reads it: what is behind one tag, if there is one.
struct Seen {
  explicit Seen(const std::string& frame) {
    const auto byte = [&](size_t i) -> uint8_t {
      return i < frame.size() ? static_cast<uint8_t>(frame[i]) : 0;
    };
    const auto word = [&](size_t i) -> uint32_t {
      return byte(i) << 8 | byte(i + 1);
    };
    size_t l3 = 14;
    type = word(12);
    if (type == 0x8100) {
      vlan = word(14) & 0xfff;
      type = word(16);
      l3 = 18;
    }
    if (type == 0x0800) {
      src = word(l3 + 12) << 16 | word(l3 + 14);
      dst = word(l3 + 16) << 16 | word(l3 + 18);
      ttl = byte(l3 + 8);
      proto = byte(l3 + 9);
      dport = word(l3 + (byte(l3) & 15) * 4 + 2);
    } else if (type == 0x86dd) {
      // 2001:db8:X::, of which the third group tells the networks apart.
      site = word(l3 + 8) == 0x2001 ? word(l3 + 12) : 0;
      ttl = byte(l3 + 7);
      proto = byte(l3 + 6);
      dport = word(l3 + 42);
      multicast = byte(l3 + 24) == 0xff;
    }
  }

  bool fromNet(const char* net, int bits) const {
    return type == 0x0800 && ((src ^ ip4(net)) >> (32 - bits)) == 0;
  }
  bool toNet(const char* net, int bits) const {
    return type == 0x0800 && ((dst ^ ip4(net)) >> (32 - bits)) == 0;
  }

  uint32_t type = 0, vlan = 0, src = 0, dst = 0, site = 0, ttl = 0, proto = 0,
           dport = 0;
  bool multicast = false;
};

uint64_t count(const std::string& capture,
               const std::function<bool(const Seen&)>& wanted) {
  const auto rows = readCapture(kCampus + "/" + capture);
  return static_cast<uint64_t>(std::count_if(
      rows.begin(), rows.end(),
      [&](const CaptureRow& row) { return wanted(Seen(row.bytes)); }));
}

TEST_F(Campus, ReportIsTheKeptOne) {
  play();
  const auto kept = nlohmann::json::parse(readFile(kCampus + "/expected.json"));
  EXPECT_EQ(nlohmann::json::diff(kept, stats_).dump(), "[]");
}

TEST_F(Campus, CountsAreWhatTheCapturesHold) {
  play();
  EXPECT_EQ(account("packetsIn"),
            readCapture(kCampus + "/port1.pcap").size() +
                readCapture(kCampus + "/port2.pcap").size() +
                readCapture(kCampus + "/port3.pcap").size());
  EXPECT_EQ(flow({"dl_vlan=99"}),
            count("port1.pcap", [](const Seen& f) { return f.vlan == 99; }));
  EXPECT_EQ(flow({"dl_vlan=20,arp"}), count("port1.pcap", [](const Seen& f) {
              return f.vlan == 20 && f.type == 0x0806;
            }));
  EXPECT_EQ(flow({"dl_vlan=20,ip,"}), count("port1.pcap", [](const Seen& f) {
              return f.vlan == 20 && f.fromNet("10.20.0.0", 24);
            }));
  EXPECT_EQ(flow({"in_port=3,ip,nw_src=10.0.0.0/8"}),
            count("port3.pcap",
                  [](const Seen& f) { return f.fromNet("10.0.0.0", 8); }));
  EXPECT_EQ(flow({"in_port=3,ipv6,ipv6_src=2001:db8::/42"}),
            count("port3.pcap", [](const Seen& f) {
              return f.type == 0x86dd && f.site > 0 && f.site < 0x40;
            }));
  EXPECT_EQ(flow({"table=1", "tcp,tp_dst=23"}),
            count("port1.pcap", [](const Seen& f) {
              return f.type == 0x0800 && f.proto == 6 && f.dport == 23;
            }));
  EXPECT_EQ(flow({"in_port=3,tcp6", "tp_dst=80"}),
            count("port3.pcap", [](const Seen& f) {
              return f.type == 0x86dd && f.proto == 6 && f.dport == 80;
            }));
  EXPECT_EQ(flow({"nw_src=10.30.0.0/24,nw_dst=10.0.0.0/8"}),
            count("port1.pcap", [](const Seen& f) {
              return f.fromNet("10.30.0.0", 24) && f.toNet("10.0.0.0", 8) &&
                     !(f.proto == 17 && f.dport == 53);
            }));
  // The traceroutes; reports of multicast listeners have a hop limit of 1 too.
  EXPECT_EQ(account("dropsTtlExpired"), count("port1.pcap", [](const Seen& f) {
              return (f.type == 0x0800 || f.type == 0x86dd) && f.ttl == 1 &&
                     !f.multicast;
            }));
}

TEST_F(Campus, WhatLeavesIsWhatTheRecordedRouterSent) {
  play("--out-dir " + (folder_ / "out").string());
  for (const std::string port : {"1", "2", "3"}) {
    std::map<std::string, int> sent;
    for (const CaptureRow& row :
         readCapture(kCampus + "/sent" + port + ".pcap")) {
      sent[row.bytes]++;
    }
    const std::vector<CaptureRow> ours = written("out/port-" + port + ".pcap");
    EXPECT_GT(ours.size(), 200u);
    for (const CaptureRow& row : ours) {
      EXPECT_GE(sent[row.bytes]--, 1)
          << "port " << port << ": the router did not send "
          << hex(Bytes(row.bytes.begin(), row.bytes.end()));
    }
  }
}

TEST_F(Campus, ManyWorkersWriteTheSameFiles) {
  play("--out-dir " + (folder_ / "one").string());
  play("--workers 3 --out-dir " + (folder_ / "three").string());
  for (const std::string file :
       {"controller.pcap", "port-1.pcap", "port-2.pcap", "port-3.pcap"}) {
    EXPECT_TRUE(readFile(folder_ / "one" / file) ==
                readFile(folder_ / "three" / file))
        << file;
  }
}

}  // namespace
}  // namespace openflow_test
