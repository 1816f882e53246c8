// SPDX-License-Identifier: BSD-3-Clause
//
// Packets of the host made from plain values, and back.
#pragma once

#include <cstddef>
#include <vector>

#include "modules/sink.h"
#include "packet.h"
#include "packet_pool.h"
#include "tests/support/packet.h"

namespace openflow_test {

// Buffers of a pool of its own. Free buffers hold what no test expects, so that
// nothing left behind in one passes for a value. Used by one thread at a time.
class PacketFactory {
 public:
  explicit PacketFactory(size_t numPackets);
  ~PacketFactory();

  // Throws std::invalid_argument for a shape that does not fit and
  // std::runtime_error when the pool is dry.
  bess::Packet* make(const InputPacket& input);

  size_t free() const { return pool_.available(); }

  // Takes buffers away until at most `left` are free, and gives them back.
  void drain(size_t left);
  void refill();
  size_t drained() const { return drained_.size(); }

 private:
  bess::Packet* makeSegment(const InputPacket& input, size_t offset,
                            size_t length, size_t headroom);

  bess::PacketPool pool_;
  std::vector<bess::Packet*> drained_;
};

OutputPacket toOutputPacket(const Sink::Captured& captured);

}  // namespace openflow_test
