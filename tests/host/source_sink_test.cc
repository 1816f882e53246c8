// SPDX-License-Identifier: BSD-3-Clause
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rte_malloc.h>

#include <cstring>

#include "dpdk_log.h"
#include "modules/source.h"
#include "probe.h"

namespace {

using bess::Packet;
using testing::ElementsAre;

class SourceSinkTest : public HostTest {
 protected:
  SourceSinkTest()
      : source_(static_cast<Source*>(
            bess::CreateModule("Source", "source").module)),
        sink_(MakeSink("sink")) {}

  Source* source_;
  Sink* sink_;
};

TEST_F(SourceSinkTest, CarriesPacketsInBatchesOf32) {
  Connect(source_, 0, sink_, 1);
  bess::InlineWorker worker(0);
  for (int i = 0; i < 70; i++) {
    ASSERT_TRUE(source_->Push(MakePacket(std::to_string(i))));
  }
  Task* task = source_->tasks()[0].get();
  const task_result first = worker.Run(task);
  EXPECT_FALSE(first.block);
  EXPECT_EQ(first.packets, 32u);
  EXPECT_EQ(first.bits, 8u * (10 + 22 * 2));
  EXPECT_EQ(source_->waiting(), 38u);
  worker.Run(task);
  worker.Run(task);
  EXPECT_TRUE(worker.Run(task).block);
  EXPECT_THAT(sink_->batches(), ElementsAre(32, 32, 6));
  const auto captured = sink_->Take();
  ASSERT_EQ(captured.size(), 70u);
  for (size_t i = 0; i < captured.size(); i++) {
    EXPECT_EQ(captured[i].bytes, std::to_string(i));
    EXPECT_EQ(captured[i].order, captured[0].order + i);
  }
}

TEST_F(SourceSinkTest, SinkKeepsWhatCameWithAPacket) {
  Connect(source_, 0, sink_, 1);
  Packet* pkt = MakePacket("head");
  ASSERT_EQ(rte_pktmbuf_chain(pkt->mbuf(), MakePacket("tail")->mbuf()), 0);
  pkt->set_tag(77);
  pkt->set_port(3);
  for (size_t i = 0; i < Packet::kMetadataSize; i++) {
    pkt->metadata<char*>()[i] = static_cast<char>(i);
  }
  source_->Push(pkt);
  bess::InlineWorker worker(6);
  worker.Run(source_->tasks()[0].get());
  const auto captured = sink_->Take();
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(captured[0].bytes, "headtail");
  EXPECT_EQ(captured[0].segments, 2);
  EXPECT_EQ(captured[0].tag, 77u);
  EXPECT_EQ(captured[0].port, 3);
  EXPECT_EQ(captured[0].igate, 1);
  EXPECT_EQ(captured[0].wid, 6);
  for (size_t i = 0; i < Packet::kMetadataSize; i++) {
    EXPECT_EQ(captured[0].metadata[i], i);
  }
  EXPECT_TRUE(sink_->Take().empty());
  EXPECT_TRUE(sink_->batches().empty());
}

TEST_F(SourceSinkTest, SourceRefusesMoreThanItHolds) {
  std::vector<Packet*> pkts;
  for (unsigned i = 0; i < Source::kCapacity; i++) {
    ASSERT_TRUE(source_->Push(MakePacket("x")));
  }
  Packet* one_more = MakePacket("x");
  EXPECT_FALSE(source_->Push(one_more));
  Packet::Free(one_more);
  // What waits is freed with the module; the fixture counts.
}

// Before it is gone: DPDK says so when it is given a ring that it has freed.
TEST_F(SourceSinkTest, SourceGivesItsRingBackOnce) {
  rte_malloc_socket_stats before;
  rte_malloc_socket_stats after;
  rte_malloc_get_socket_stats(0, &before);
  ASSERT_EQ(bess::CreateModule("Source", "once").response.error().code(), 0);
  {
    const bess::DpdkLogCapture log;
    EXPECT_EQ(bess::DestroyModule("once").error().code(), 0);
    EXPECT_EQ(log.Summary(), "");
  }
  rte_malloc_get_socket_stats(0, &after);
  EXPECT_EQ(after.heap_allocsz_bytes, before.heap_allocsz_bytes);
}

TEST_F(SourceSinkTest, WithoutALinkTheSourceDrops) {
  source_->Push(MakePacket("x"));
  bess::InlineWorker worker(0);
  worker.Run(source_->tasks()[0].get());
  EXPECT_EQ(source_->deadends(0), 1u);
}

}  // namespace
