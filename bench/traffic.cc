// SPDX-License-Identifier: BSD-3-Clause
#include "bench/traffic.h"

#include <algorithm>
#include <cstring>

namespace bench {

std::vector<FrameBytes> matchingFrames(int families, uint32_t flows) {
  std::vector<FrameBytes> frames;
  const uint32_t count = std::max<uint32_t>(flows, 10) * 10;
  for (uint32_t i = 0; i < count; i++) {
    const uint32_t flow = (i * 2654435761u >> 4) % flows;
    const bool ipv6 = families == kIpv6Only || (families == kBoth && i % 2);
    frames.push_back(
        ipv6 ? ipv6Frame(flowDst(flow), flowPort(flow))
             : ipv4Frame(flowDst(flow) | (i & 0xff), flowPort(flow)));
  }
  return frames;
}

void loadFlows(Rig* rig, uint32_t table, int families, uint32_t flows,
               const std::function<void(quil::pb::OpenFlowAddFlow*)>& change) {
  std::vector<quil::pb::OpenFlowAddFlow> v4, v6;
  for (uint32_t i = 0; i < flows; i++) {
    if (hasIpv4(families)) v4.push_back(prefixPortFlow(i));
    if (hasIpv6(families)) v6.push_back(prefixPortFlow6(i));
  }
  if (change) {
    std::for_each(v4.begin(), v4.end(), [&](auto& flow) { change(&flow); });
    std::for_each(v6.begin(), v6.end(), [&](auto& flow) { change(&flow); });
  }
  rig->bind(table);
  rig->setFlows(table, false, v4);
  rig->setFlows(table, true, v6);
}

BareParts::BareParts(int families, uint32_t table)
    : families_(families),
      acl4_(Rig::classifier(2 * table)),
      acl6_(Rig::classifier(2 * table + 1)) {
  for (int i = 0; i < kBurst; i++) {
    pointers4_[i] = reinterpret_cast<const uint8_t*>(&copied4_[i]);
    pointers6_[i] = reinterpret_cast<const uint8_t*>(&copied6_[i]);
  }
}

void BareParts::prepare(const bess::PacketBatch& batch) {
  uint8_t room[kFrameWindow];
  for (int i = 0; i < batch.cnt(); i++) {
    buildKeys<true, true>(frameWindow(*batch.pkts()[i], room), 0, &keys4_[i],
                          &keys6_[i]);
  }
}

void BareParts::copyAndFree(const bess::PacketBatch& batch) {
  rte_mbuf* copies[kBurst];
  const int count = batch.cnt();
  for (int i = 0; i < count; i++) {
    const bess::Packet* packet = batch.pkts()[i];
    copies[i] = rte_mbuf_raw_alloc(packet->mbuf()->pool);
    copies[i]->data_off = bess::Packet::kHeadroom;
    copies[i]->data_len = packet->data_len();
    copies[i]->pkt_len = packet->data_len();
    rte_memcpy(rte_pktmbuf_mtod(copies[i], void*), packet->head_data<void*>(),
               packet->data_len());
  }
  rte_pktmbuf_free_bulk(copies, static_cast<unsigned>(count));
}

void BareParts::copyAndFreePackets(const bess::PacketBatch& batch) {
  rte_mbuf* copies[kBurst];
  const int count = batch.cnt();
  for (int i = 0; i < count; i++) {
    const bess::Packet* packet = batch.pkts()[i];
    copies[i] = rte_pktmbuf_alloc(packet->mbuf()->pool);
    rte_memcpy(rte_pktmbuf_append(copies[i], packet->data_len()),
               packet->head_data<void*>(), packet->data_len());
  }
  for (int i = 0; i < count; i++) rte_pktmbuf_free(copies[i]);
}

}  // namespace bench
