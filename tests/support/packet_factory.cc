// SPDX-License-Identifier: BSD-3-Clause
#include "tests/support/packet_factory.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <stdexcept>

namespace openflow_test {
namespace {

// In free buffers and in the metadata that a test does not set.
constexpr uint8_t kPoison = 0xa5;

static_assert(kBufferSize == bess::Packet::kHeadroom + bess::Packet::kDataRoom);

template <class T>
T load(const uint8_t* from) {
  T value;
  memcpy(&value, from, sizeof(value));
  return value;
}

template <class T>
void store(uint8_t* to, T value) {
  memcpy(to, &value, sizeof(value));
}

void writeMetadata(const MetadataBlock& block, bess::Packet* packet) {
  uint8_t* area = packet->metadata<uint8_t*>();
  memset(area, kPoison, bess::Packet::kMetadataSize);
  store(area + kFlagsOffset, block.flags);
  store(area + kMetadataOffset, block.metadata);
  store(area + kInPortOffset, block.inPort);
  store(area + kStartTableOffset, block.startTable);
  store(area + kPuntWordOffset, block.puntWord);
}

std::vector<size_t> segmentLengths(const InputPacket& input) {
  if (input.headroom > kBufferSize) {
    throw std::invalid_argument("more headroom than buffer");
  }
  std::vector<size_t> lengths = input.segments;
  if (lengths.empty()) {
    size_t left = input.bytes.size();
    lengths.push_back(std::min(left, kBufferSize - input.headroom));
    while ((left -= lengths.back()) > 0) {
      lengths.push_back(std::min(left, kBufferSize));
    }
  }
  const size_t total =
      std::accumulate(lengths.begin(), lengths.end(), size_t{0});
  if (total != input.bytes.size()) {
    throw std::invalid_argument("segments do not add up to the packet");
  }
  return lengths;
}

}  // namespace

PacketFactory::PacketFactory(size_t numPackets) : pool_(numPackets, 0) {
  drain(0);
  for (bess::Packet* packet : drained_) {
    memset(packet->metadata<uint8_t*>(), kPoison, bess::Packet::kMetadataSize);
    memset(packet->mbuf()->buf_addr, kPoison, packet->mbuf()->buf_len);
  }
  refill();
}

PacketFactory::~PacketFactory() { refill(); }

bess::Packet* PacketFactory::make(const InputPacket& input) {
  const std::vector<size_t> lengths = segmentLengths(input);
  bess::Packet* first = makeSegment(input, 0, lengths[0], input.headroom);
  writeMetadata(input.meta, first);
  rte_mbuf* last = first->mbuf();
  size_t offset = lengths[0];
  for (size_t i = 1; i < lengths.size(); i++) {
    last->next = makeSegment(input, offset, lengths[i], 0)->mbuf();
    last = last->next;
    offset += lengths[i];
  }
  first->mbuf()->nb_segs = static_cast<uint16_t>(lengths.size());
  first->set_total_len(static_cast<uint32_t>(input.bytes.size()));
  return first;
}

bess::Packet* PacketFactory::makeSegment(const InputPacket& input,
                                         size_t offset, size_t length,
                                         size_t headroom) {
  if (headroom + length > kBufferSize) {
    throw std::invalid_argument("segment longer than its buffer");
  }
  bess::Packet* packet = pool_.Alloc();
  if (packet == nullptr) {
    throw std::runtime_error("the pool is too small for the packets to send");
  }
  rte_mbuf* mbuf = packet->mbuf();
  memset(mbuf->buf_addr, input.fill, kBufferSize);
  mbuf->data_off = static_cast<uint16_t>(headroom);
  packet->set_data_len(static_cast<uint16_t>(length));
  packet->set_total_len(static_cast<uint32_t>(length));
  std::copy_n(input.bytes.data() + offset, length,
              packet->head_data<uint8_t*>());
  return packet;
}

void PacketFactory::drain(size_t left) {
  while (pool_.available() > left) {
    drained_.push_back(pool_.Alloc());
  }
}

void PacketFactory::refill() {
  for (bess::Packet* packet : drained_) bess::Packet::Free(packet);
  drained_.clear();
}

OutputPacket toOutputPacket(const Sink::Captured& captured) {
  OutputPacket packet;
  packet.bytes.assign(captured.bytes.begin(), captured.bytes.end());
  packet.segments = static_cast<size_t>(captured.segments);
  const uint8_t* area = captured.metadata.data();
  packet.meta.flags = load<uint64_t>(area + kFlagsOffset);
  packet.meta.metadata = load<uint64_t>(area + kMetadataOffset);
  packet.meta.inPort = load<uint32_t>(area + kInPortOffset);
  packet.meta.startTable = load<uint16_t>(area + kStartTableOffset);
  packet.meta.puntWord = load<uint32_t>(area + kPuntWordOffset);
  return packet;
}

}  // namespace openflow_test
