// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "graph.h"
#include "inline_worker.h"
#include "modules/port_in.h"
#include "modules/port_out.h"
#include "modules/sink.h"
#include "modules/source.h"
#include "packet_pool.h"
#include "ports/port.h"

// An untagged frame of `len` bytes between made-up addresses; its payload
// counts up from `seed`. With a `tag`, 802.1Q.
std::string MakeFrame(size_t len, uint8_t seed = 0, bool tag = false);

// Closes what a test has opened, and checks that no packet has leaked.
class PortTest : public testing::Test {
 protected:
  PortTest();
  ~PortTest() override;

  // Opens a port; null, and the test fails, when it does not open.
  bess::Port* Open(const std::string& name, const bess::PortOptions& options);

  // Why a port with that device does not open; "" when it does.
  std::string Failure(const bess::PortOptions& options);

  // A queue's receiver, with a sink behind it.
  struct Receiver {
    PortIn* in;
    Sink* sink;
    Task* task() const { return in->tasks().front().get(); }
  };
  Receiver Receive(const bess::Port* port, uint16_t queue = 0);

  // A port's sender, with a source in front of it.
  struct Sender {
    Source* source;
    PortOut* out;
    Task* task() const { return source->tasks().front().get(); }
  };
  Sender Send(const bess::Port* port);

  // Gives the sender `count` packets of `frame` and runs it until they are
  // gone.
  void Push(const Sender& sender, const std::string& frame, int count = 1);

  // Runs the receiver until nothing comes any more; what has come.
  std::vector<Sink::Captured> Pull(const Receiver& receiver);

  // A packet, of several segments when `frame` needs it or `segment` says so.
  bess::Packet* MakePacket(const std::string& frame,
                           size_t segment = bess::Packet::kDataRoom);

  // That the sums of the port's statistics close.
  static void ExpectClosed(const bess::Port* port);

  bess::InlineWorker* worker() {
    return &(worker_ ? *worker_ : worker_.emplace(0));
  }

  bess::PacketPool* pool_;

 private:
  size_t available_before_;
  std::optional<bess::InlineWorker> worker_;
};
