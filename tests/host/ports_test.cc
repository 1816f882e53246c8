// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <set>
#include <utility>
#include <vector>

#include "modules/port_metadata.h"
#include "port_harness.h"
#include "ports/port.h"

namespace {

using bess::DropCause;
using bess::Packet;
using bess::Port;
using bess::PortMetadata;
using bess::PortStats;
using testing::HasSubstr;

PortMetadata MetadataOf(const Sink::Captured& captured) {
  PortMetadata block;
  memcpy(&block, captured.metadata.data(), sizeof(block));
  return block;
}

// By which operators' alarms know them.
TEST(DropCauses, KeepTheirNames) {
  const std::pair<DropCause, const char*> names[] = {
      {DropCause::kRxMissed, "rx_missed"},
      {DropCause::kRxNoBuffer, "rx_no_buffer"},
      {DropCause::kRxError, "rx_error"},
      {DropCause::kRxTooLong, "rx_frame_too_long"},
      {DropCause::kTxPortDown, "tx_port_down"},
      {DropCause::kTxQueueFull, "tx_queue_full"},
      {DropCause::kTxTooLong, "tx_frame_too_long"},
      {DropCause::kTxTooShort, "tx_frame_too_short"},
      {DropCause::kTxTooManySegments, "tx_too_many_segments"},
      {DropCause::kTxError, "tx_error"}};
  ASSERT_EQ(std::size(names), bess::kNumDropCauses);
  for (const auto& [cause, name] : names) {
    EXPECT_STREQ(Info(cause).name, name);
  }
  EXPECT_THAT(Info(DropCause::kRxMissed).sentence, HasSubstr("too slow"));
  EXPECT_THAT(Info(DropCause::kRxNoBuffer).sentence, HasSubstr("pool"));
  EXPECT_THAT(Info(DropCause::kRxError).sentence, HasSubstr("broken"));
  EXPECT_THAT(Info(DropCause::kRxTooLong).sentence, HasSubstr("merged"));
  EXPECT_THAT(Info(DropCause::kTxPortDown).sentence, HasSubstr("is down"));
  EXPECT_THAT(Info(DropCause::kTxQueueFull).sentence, HasSubstr("full"));
  EXPECT_THAT(Info(DropCause::kTxTooLong).sentence, HasSubstr("longer"));
  EXPECT_THAT(Info(DropCause::kTxTooShort).sentence, HasSubstr("shorter"));
  EXPECT_THAT(Info(DropCause::kTxTooManySegments).sentence,
              HasSubstr("more pieces"));
  EXPECT_THAT(Info(DropCause::kTxError).sentence, HasSubstr("failed to send"));
}

TEST(DropCauses, HaveNamesAndSentencesOfTheirOwn) {
  std::set<std::string> names;
  std::set<std::string> sentences;
  for (const bess::DropCauseInfo& info : bess::kDropCauses) {
    EXPECT_EQ(std::string(info.name).starts_with("rx_"), info.receive);
    EXPECT_TRUE(std::string(info.sentence).ends_with(".")) << info.name;
    names.insert(info.name);
    sentences.insert(info.sentence);
  }
  EXPECT_EQ(names.size(), bess::kNumDropCauses);
  EXPECT_EQ(sentences.size(), bess::kNumDropCauses);
}

class RingPortTest : public PortTest {};

TEST_F(RingPortTest, SendsAndReceivesTheBytes) {
  Port* port = Open("loop", {.device = "net_ring0", .number = 7});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->driver(), "net_ring");
  EXPECT_EQ(port->mtu(), 1500);
  EXPECT_TRUE(port->link().up);
  EXPECT_TRUE(port->link_up());
  const Sender sender = Send(port);
  const Receiver receiver = Receive(port);
  Push(sender, MakeFrame(60, 1));
  Push(sender, MakeFrame(1514, 2));
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0].bytes, MakeFrame(60, 1));
  EXPECT_EQ(captured[1].bytes, MakeFrame(1514, 2));
  const PortStats stats = port->stats();
  EXPECT_EQ(stats.tx_entered, 2u);
  EXPECT_EQ(stats.tx_packets, 2u);
  EXPECT_EQ(stats.tx_bytes, 1574u);
  EXPECT_EQ(stats.rx_received, 2u);
  EXPECT_EQ(stats.rx_packets, 2u);
  EXPECT_EQ(stats.rx_bytes, 1574u);
  ExpectClosed(port);
}

TEST_F(RingPortTest, MarksPacketsWithThePortAndNothingElse) {
  Port* port = Open("loop", {.device = "net_ring0", .number = 70000});
  const Sender sender = Send(port);
  const Receiver receiver = Receive(port);
  // The ring hands over the sender's own packet, metadata and all.
  Packet* pkt = MakePacket(MakeFrame(60));
  memset(pkt->metadata<char*>(), 0xff, Packet::kMetadataSize);
  pkt->set_tag(99);
  ASSERT_TRUE(sender.source->Push(pkt));
  worker()->Run(sender.task());
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 1u);
  const PortMetadata block = MetadataOf(captured[0]);
  EXPECT_EQ(block.flags,
            PortMetadata::kMetadataValid | PortMetadata::kInPortValid);
  EXPECT_EQ(block.in_port, 70000u);
  EXPECT_EQ(block.metadata, 70000u);
  EXPECT_EQ(captured[0].tag, 0u);
}

// Keeps the packets that it is given.
class Keeper final : public Module {
 public:
  void ProcessBatch(Context*, bess::PacketBatch* batch) override {
    kept.insert(kept.end(), batch->pkts(), batch->pkts() + batch->cnt());
  }
  std::vector<Packet*> kept;
};

// The list of a burst is that of the one before, as far as it is shorter.
TEST_F(RingPortTest, LeavesPacketsOfEarlierBurstsAlone) {
  ASSERT_TRUE(ModuleBuilder::RegisterModuleClass(
      [] { return new Keeper; }, "Keeper", "keeper", "", 1, 0, {},
      MODULE_INIT_FUNC(&Module::Init)));
  Port* port = Open("loop", {.device = "net_ring0"});
  const Sender sender = Send(port);
  const Receiver receiver = Receive(port);
  bess::DestroyModule(receiver.sink->name());
  auto* keeper = static_cast<Keeper*>(bess::CreateModule("Keeper").module);
  EXPECT_EQ(bess::ConnectModules(receiver.in->name(), 0, keeper->name(), 0)
                .error()
                .code(),
            0);
  Push(sender, MakeFrame(60), 3);
  worker()->Run(receiver.task());
  ASSERT_EQ(keeper->kept.size(), 3u);
  for (Packet* pkt : keeper->kept) {
    pkt->set_tag(77);
  }
  Push(sender, MakeFrame(60), 1);
  worker()->Run(receiver.task());
  ASSERT_EQ(keeper->kept.size(), 4u);
  for (size_t i = 0; i < 3; i++) {
    EXPECT_EQ(keeper->kept[i]->tag(), 77u) << i;
  }
  EXPECT_EQ(keeper->kept[3]->tag(), 0u);
  Packet::Free(keeper->kept.data(), keeper->kept.size());
  bess::DestroyAllModules();
  EXPECT_TRUE(ModuleBuilder::DeregisterModuleClass("Keeper"));
}

TEST_F(RingPortTest, CountsWhatAFullQueueDoesNotTake) {
  Port* port = Open("loop", {.device = "net_ring0"});
  const Sender sender = Send(port);
  Push(sender, MakeFrame(60), 3000);
  // The driver's rings hold 1023 packets.
  PortStats stats = port->stats();
  EXPECT_EQ(stats.tx_entered, 3000u);
  EXPECT_EQ(stats.tx_packets, 1023u);
  EXPECT_EQ(stats.tx_bytes, 1023u * 60);
  EXPECT_EQ(stats.drop(DropCause::kTxQueueFull), 3000u - 1023);
  EXPECT_EQ(sender.out->deadends(0), 3000u - 1023);
  ExpectClosed(port);

  const Receiver receiver = Receive(port);
  EXPECT_EQ(Pull(receiver).size(), 1023u);
  stats = port->stats();
  EXPECT_EQ(stats.rx_packets, 1023u);
  EXPECT_EQ(stats.rx_received, 1023u);
  Push(sender, MakeFrame(60), 5);
  EXPECT_EQ(port->stats().tx_packets, 1028u);
  ExpectClosed(port);
}

TEST_F(RingPortTest, RefusesFramesOfTheWrongLengthAloneAndOutOfABatch) {
  Port* port = Open("loop", {.device = "net_ring0"});
  const Sender sender = Send(port);
  const Receiver receiver = Receive(port);
  for (const bool alone : {true, false}) {
    for (const std::string& frame :
         {MakeFrame(13), MakeFrame(14), MakeFrame(1514), MakeFrame(1515),
          MakeFrame(1518, 0, true), MakeFrame(1519, 0, true)}) {
      ASSERT_TRUE(sender.source->Push(MakePacket(frame)));
      if (alone) worker()->Run(sender.task());
    }
    worker()->Run(sender.task());
    std::vector<size_t> lengths;
    for (const auto& captured : Pull(receiver)) {
      lengths.push_back(captured.bytes.size());
    }
    EXPECT_THAT(lengths, testing::ElementsAre(14, 1514, 1518));
  }
  const PortStats stats = port->stats();
  EXPECT_EQ(stats.drop(DropCause::kTxTooShort), 2u);
  EXPECT_EQ(stats.drop(DropCause::kTxTooLong), 4u);
  EXPECT_EQ(stats.tx_packets, 6u);
  EXPECT_EQ(stats.tx_bytes, 2u * (14 + 1514 + 1518));
  ExpectClosed(port);
}

TEST_F(RingPortTest, CarriesJumboFramesInSegments) {
  Port* port = Open("loop", {.device = "net_ring0", .mtu = 9000});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->mtu(), 9000);
  EXPECT_EQ(port->max_frame(), 9014u);
  const Sender sender = Send(port);
  const Receiver receiver = Receive(port);
  Push(sender, MakeFrame(9014, 5));
  Push(sender, MakeFrame(9015, 5));
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].segments, 5);
  EXPECT_EQ(captured[0].bytes, MakeFrame(9014, 5));
  EXPECT_EQ(port->stats().drop(DropCause::kTxTooLong), 1u);
  EXPECT_EQ(port->stats().rx_bytes, 9014u);
  ExpectClosed(port);
}

TEST_F(RingPortTest, CarriesTheLongestFramesThereAre) {
  Port* port = Open("loop", {.device = "net_ring0", .mtu = 65535});
  ASSERT_NE(port, nullptr);
  const Receiver receiver = Receive(port);
  Push(Send(port), MakeFrame(65549, 8));
  const auto captured = Pull(receiver);
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].bytes, MakeFrame(65549, 8));
}

TEST_F(RingPortTest, StartsCleanWhenOpenedAgain) {
  for (int round = 0; round < 3; round++) {
    Port* port = Open("loop", {.device = "net_ring0"});
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->stats().tx_entered, 0u);
    const Receiver receiver = Receive(port);
    EXPECT_EQ(Pull(receiver).size(), 0u) << "left over from the last round";
    Push(Send(port), MakeFrame(60), 100);
    EXPECT_EQ(port->stats().tx_packets, 100u);
    EXPECT_THAT(bess::ClosePort("loop"), HasSubstr("in use"));
    bess::DestroyAllModules();
    EXPECT_EQ(bess::ClosePort("loop"), "");
    EXPECT_EQ(bess::FindPort("loop"), nullptr);
  }
}

TEST_F(RingPortTest, KeepsQueuesApart) {
  Port* port = Open("loop", {.device = "net_ring0", .rx_queues = 3});
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(port->rx_queues(), 3);
  EXPECT_EQ(port->tx_queues(), 3);
  const Sender sender = Send(port);
  const Receiver first = Receive(port, 0);
  const Receiver second = Receive(port, 1);
  Push(sender, MakeFrame(60), 4);  // worker 0, so from queue 0
  EXPECT_EQ(Pull(first).size(), 4u);
  EXPECT_EQ(Pull(second).size(), 0u);
}

class NullPortTest : public PortTest {};

TEST_F(NullPortTest, ReceivesFullBatchesForever) {
  Port* port = Open("null", {.device = "net_null0,size=100", .number = 3});
  ASSERT_NE(port, nullptr);
  const Receiver receiver = Receive(port);
  for (int i = 0; i < 10; i++) {
    const task_result result = worker()->Run(receiver.task());
    EXPECT_FALSE(result.block);
    EXPECT_EQ(result.packets, 32u);
    EXPECT_EQ(result.bits, 32u * 100 * 8);
  }
  EXPECT_EQ(port->stats().rx_packets, 320u);
  EXPECT_EQ(port->stats().rx_bytes, 32000u);
  EXPECT_EQ(receiver.sink->Take().size(), 320u);
  ExpectClosed(port);
}

TEST_F(NullPortTest, TakesNumbersAsTheDriverDoes) {
  Port* port = Open("null", {.device = "net_null0,size=0x40"});
  ASSERT_NE(port, nullptr);
  const Receiver receiver = Receive(port);
  EXPECT_EQ(worker()->Run(receiver.task()).bits, 32u * 64 * 8);
}

TEST_F(NullPortTest, TakesEverything) {
  Port* port = Open("null", {.device = "net_null0"});
  Push(Send(port), MakeFrame(60), 5000);
  EXPECT_EQ(port->stats().tx_packets, 5000u);
  ExpectClosed(port);
}

class PcapPortTest : public PortTest {
 protected:
  PcapPortTest() : path_(testing::TempDir() + "ports_test.pcap") {}
  ~PcapPortTest() override { remove(path_.c_str()); }

  // Sends the frames to the file.
  void Record(const std::vector<std::string>& frames) {
    Port* port =
        Open("recorder", {.device = "net_pcap0,tx_pcap=" + path_, .mtu = 9000});
    ASSERT_NE(port, nullptr);
    const Sender sender = Send(port);
    for (const std::string& frame : frames) {
      Push(sender, frame);
    }
    EXPECT_EQ(port->stats().tx_packets, frames.size());
    ExpectClosed(port);
    bess::DestroyAllModules();
    ASSERT_EQ(bess::ClosePort("recorder"), "");
  }

  const std::string path_;
};

TEST_F(PcapPortTest, ReadsBackWhatItWrote) {
  Record({MakeFrame(60, 1), MakeFrame(9014, 2), MakeFrame(2048, 3),
          MakeFrame(2049, 4)});
  Port* port = Open("player", {.device = "net_pcap1,rx_pcap=" + path_});
  ASSERT_NE(port, nullptr);
  const auto captured = Pull(Receive(port));
  ASSERT_EQ(captured.size(), 4u);
  EXPECT_EQ(captured[0].bytes, MakeFrame(60, 1));
  EXPECT_EQ(captured[1].bytes, MakeFrame(9014, 2));
  EXPECT_EQ(captured[1].segments, 5);
  EXPECT_EQ(captured[2].bytes, MakeFrame(2048, 3));
  EXPECT_EQ(captured[2].segments, 1);
  EXPECT_EQ(captured[3].bytes, MakeFrame(2049, 4));
  EXPECT_EQ(port->stats().rx_bytes, 60u + 9014 + 2048 + 2049);
  ExpectClosed(port);
}

TEST_F(PcapPortTest, PlaysForeverWhenAskedTo) {
  Record({MakeFrame(60, 1), MakeFrame(70, 2), MakeFrame(80, 3)});
  Port* port =
      Open("player", {.device = "net_pcap1,infinite_rx=1,rx_pcap=" + path_});
  ASSERT_NE(port, nullptr);
  const Receiver receiver = Receive(port);
  for (int i = 0; i < 100; i++) {
    EXPECT_FALSE(worker()->Run(receiver.task()).block);
  }
  const auto captured = receiver.sink->Take();
  ASSERT_EQ(captured.size(), 3200u);
  for (size_t i = 0; i < captured.size(); i++) {
    const auto seed = static_cast<uint8_t>(i % 3);
    ASSERT_EQ(captured[i].bytes, MakeFrame(60 + 10 * seed, seed + 1)) << i;
  }
  ExpectClosed(port);
}

TEST_F(PcapPortTest, CountsFramesThatFoundNoBuffer) {
  Record(std::vector<std::string>(200, MakeFrame(60)));
  bess::PacketPool small(63, 0);
  Port* port =
      Open("player", {.device = "net_pcap1,rx_pcap=" + path_, .pool = &small});
  ASSERT_NE(port, nullptr);
  const Receiver receiver = Receive(port);
  std::vector<Packet*> held;
  while (Packet* pkt = small.Alloc()) {
    held.push_back(pkt);
  }
  for (int i = 0; i < 10; i++) {
    worker()->Run(receiver.task());
  }
  const PortStats starved = port->stats();
  EXPECT_EQ(starved.rx_packets, 0u);
  EXPECT_GT(starved.drop(DropCause::kRxNoBuffer), 0u);
  Packet::Free(held.data(), held.size());
  const size_t received = Pull(receiver).size();
  const PortStats stats = port->stats();
  EXPECT_EQ(stats.rx_packets, received);
  EXPECT_EQ(stats.rx_received, 200u) << "all that the file holds";
  ExpectClosed(port);
  bess::DestroyAllModules();
  EXPECT_EQ(bess::ClosePort("player"), "");
}

TEST_F(PcapPortTest, CanBeOpenedAgain) {
  for (int round = 0; round < 3; round++) {
    Record({MakeFrame(60, 1), MakeFrame(61, 2)});
    Port* port = Open("player", {.device = "net_pcap0,rx_pcap=" + path_});
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(Pull(Receive(port)).size(), 2u);
    bess::DestroyAllModules();
    ASSERT_EQ(bess::ClosePort("player"), "");
  }
}

}  // namespace
