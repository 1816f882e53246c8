// SPDX-License-Identifier: BSD-3-Clause
//
// Devices that take a part of a burst.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_ethdev.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "port_harness.h"

namespace {

using bess::DropCause;
using bess::Packet;
using bess::Port;
using bess::PortStats;
using testing::ElementsAre;

// What the device was asked to take, what it did take, and how much it takes
// at once.
std::vector<int> asked;
std::vector<char> taken;  // each packet's last byte
uint16_t most = 0;

uint16_t TakeSome(void*, rte_mbuf** mbufs, uint16_t count) {
  asked.push_back(count);
  const uint16_t taking = std::min(count, most);
  for (uint16_t i = 0; i < taking; i++) {
    const Packet* pkt = Packet::from_mbuf(mbufs[i]);
    taken.push_back(pkt->head_data<const char*>()[pkt->head_len() - 1]);
  }
  rte_pktmbuf_free_bulk(mbufs, taking);
  return taking;
}

class PortRetriesTest : public PortTest {
 protected:
  PortRetriesTest() {
    asked.clear();
    taken.clear();
    port_ = Open("slow", {.device = "net_null0"});
    sender_ = Send(port_);
    rte_eth_fp_ops[port_->id()].tx_pkt_burst = TakeSome;
  }

  // A batch of `count` packets of 60 bytes and more, numbered in their last
  // byte from 0.
  void PushBatch(int count) {
    for (int i = 0; i < count; i++) {
      std::string frame = MakeFrame(60 + static_cast<size_t>(i));
      frame.back() = static_cast<char>(i);
      ASSERT_TRUE(sender_.source->Push(MakePacket(frame)));
    }
    worker()->Run(sender_.task());
  }

  static std::vector<char> FirstOf(int count) {
    std::vector<char> numbers;
    for (int i = 0; i < count; i++) {
      numbers.push_back(static_cast<char>(i));
    }
    return numbers;
  }

  // Of the first `count` packets of a batch.
  static uint64_t BytesOf(int count) {
    return static_cast<uint64_t>(60 * count + count * (count - 1) / 2);
  }

  Port* port_ = nullptr;
  Sender sender_ = {};
};

TEST_F(PortRetriesTest, AsksEightTimesMoreAndThenDropsTheRest) {
  most = 3;
  PushBatch(32);
  EXPECT_THAT(asked, ElementsAre(32, 29, 26, 23, 20, 17, 14, 11, 8));
  EXPECT_EQ(taken, FirstOf(27));
  const PortStats stats = port_->stats();
  EXPECT_EQ(stats.tx_entered, 32u);
  EXPECT_EQ(stats.tx_packets, 27u);
  EXPECT_EQ(stats.tx_bytes, BytesOf(27));
  EXPECT_EQ(stats.drop(DropCause::kTxQueueFull), 5u);
  EXPECT_EQ(sender_.out->deadends(0), 5u);
  ExpectClosed(port_);
}

TEST_F(PortRetriesTest, AsksNoMoreOnceAllAreTaken) {
  most = 8;
  PushBatch(32);
  EXPECT_THAT(asked, ElementsAre(32, 24, 16, 8));
  EXPECT_EQ(taken, FirstOf(32));
  PushBatch(1);
  EXPECT_THAT(asked, ElementsAre(32, 24, 16, 8, 1));
  EXPECT_EQ(port_->stats().tx_packets, 33u);
  EXPECT_EQ(port_->stats().tx_bytes, BytesOf(32) + BytesOf(1));
  EXPECT_EQ(sender_.out->deadends(0), 0u);
  ExpectClosed(port_);
}

TEST_F(PortRetriesTest, TheLastTryIsATry) {
  most = 4;
  PushBatch(32);
  EXPECT_EQ(asked.size(), 8u);
  EXPECT_EQ(taken, FirstOf(32));
  asked.clear();
  most = 1;
  PushBatch(9);
  EXPECT_THAT(asked, ElementsAre(9, 8, 7, 6, 5, 4, 3, 2, 1));
  EXPECT_EQ(port_->stats().tx_packets, 41u);
  EXPECT_EQ(port_->stats().drop(DropCause::kTxQueueFull), 0u);
}

TEST_F(PortRetriesTest, AFullQueueLosesTheWholeBatch) {
  most = 0;
  PushBatch(2);
  EXPECT_THAT(asked, ElementsAre(2, 2, 2, 2, 2, 2, 2, 2, 2));
  EXPECT_EQ(port_->stats().tx_packets, 0u);
  EXPECT_EQ(port_->stats().tx_bytes, 0u);
  EXPECT_EQ(port_->stats().drop(DropCause::kTxQueueFull), 2u);
  EXPECT_EQ(sender_.out->deadends(0), 2u);
  ExpectClosed(port_);
}

}  // namespace
