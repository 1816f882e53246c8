// SPDX-License-Identifier: BSD-3-Clause
// What the tests of packets share: a small pool, and packets of given bytes.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "packet.h"
#include "packet_pool.h"

inline std::string Bytes(const bess::Packet* pkt) {
  std::string bytes;
  for (int left = pkt->nb_segs(); left > 0; left--, pkt = pkt->next()) {
    bytes.append(pkt->head_data<const char*>(), pkt->head_len());
  }
  return bytes;
}

inline std::string RandomBytes(size_t size) {
  static std::mt19937 random(1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(random());
  }
  return bytes;
}

inline uint64_t Flags(const bess::Packet* pkt) {
  uint64_t flags;
  memcpy(&flags, pkt->metadata<const char*>(), sizeof(flags));
  return flags;
}

class PacketTest : public testing::Test {
 protected:
  static constexpr size_t kPackets = 15;

  ~PacketTest() override {
    EXPECT_EQ(pool_.available(), kPackets) << "packets leaked";
  }

  bess::Packet* Make(const std::string& bytes) {
    bess::Packet* pkt = pool_.Alloc(static_cast<uint16_t>(bytes.size()));
    memcpy(pkt->head_data<char*>(), bytes.data(), bytes.size());
    return pkt;
  }

  // One segment for each string.
  bess::Packet* MakeChain(const std::vector<std::string>& segments) {
    bess::Packet* first = Make(segments[0]);
    for (size_t i = 1; i < segments.size(); i++) {
      EXPECT_EQ(rte_pktmbuf_chain(first->mbuf(), Make(segments[i])->mbuf()), 0);
    }
    return first;
  }

  // What a receiver may have noted about a packet.
  static void SpoilNotes(bess::Packet* pkt) {
    pkt->mbuf()->ol_flags = RTE_MBUF_F_RX_VLAN | RTE_MBUF_F_TX_IP_CKSUM;
    pkt->mbuf()->packet_type = RTE_PTYPE_L3_IPV4;
    pkt->mbuf()->vlan_tci = 0x2005;
  }

  // Leaves every free buffer as if the worst packet had been in it: metadata
  // of which all is valid, a receiver's notes, data from elsewhere.
  void SpoilFreeBuffers() {
    bess::Packet* pkts[kPackets];
    ASSERT_TRUE(pool_.AllocBulk(pkts, kPackets, bess::Packet::kDataRoom));
    for (bess::Packet* pkt : pkts) {
      memset(pkt->metadata<char*>(), 0xff, bess::Packet::kMetadataSize);
      memset(pkt->head_data<char*>(), 0xee, bess::Packet::kDataRoom);
      SpoilNotes(pkt);
      pkt->adj(77);
    }
    bess::Packet::Free(pkts, kPackets);
  }

  bess::PacketPool pool_{kPackets, 0};
};
