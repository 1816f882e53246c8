// SPDX-License-Identifier: BSD-3-Clause
#include "port_harness.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

using bess::Packet;
using bess::Port;
using bess::PortOptions;
using bess::PortStats;

namespace {

template <typename T>
google::protobuf::Any Pack(const T& message) {
  google::protobuf::Any any;
  any.PackFrom(message);
  return any;
}

template <typename M>
M* Make(const std::string& class_name, const google::protobuf::Any& arg = {}) {
  const bess::CreateResult result = bess::CreateModule(class_name, "", arg);
  EXPECT_EQ(result.response.error().errmsg(), "");
  return static_cast<M*>(result.module);
}

void Connect(const Module* from, const Module* to) {
  const CommandResponse response =
      bess::ConnectModules(from->name(), 0, to->name(), 0);
  ASSERT_EQ(response.error().errmsg(), "");
}

}  // namespace

std::string MakeFrame(size_t len, uint8_t seed, bool tag) {
  std::string frame("\x02\0\0\0\0\x0d\x02\0\0\0\0\x05", 12);
  frame += tag ? std::string("\x81\x00\x00\x07", 4) : "";
  frame += "\x88\xb5";
  while (frame.size() < len) {
    frame += static_cast<char>(seed++);
  }
  frame.resize(len);
  return frame;
}

PortTest::PortTest()
    : pool_(bess::PacketPool::Default()),
      available_before_(pool_->available()) {}

PortTest::~PortTest() {
  worker_.reset();
  EXPECT_EQ(bess::DestroyAllModules().error().errmsg(), "");
  for (const Port* port : bess::ListPorts()) {
    EXPECT_EQ(bess::ClosePort(port->name()), "");
  }
  EXPECT_EQ(pool_->available(), available_before_) << "packets have leaked";
}

Port* PortTest::Open(const std::string& name, const PortOptions& options) {
  const std::string error = bess::OpenPort(name, options);
  EXPECT_EQ(error, "");
  return bess::FindPort(name);
}

std::string PortTest::Failure(const PortOptions& options) {
  return bess::OpenPort("p", options);
}

PortTest::Receiver PortTest::Receive(const Port* port, uint16_t queue) {
  bess::pb::PortInArg arg;
  arg.set_port(port->name());
  arg.set_queue(queue);
  const Receiver receiver = {Make<PortIn>("PortIn", Pack(arg)),
                             Make<Sink>("Sink")};
  Connect(receiver.in, receiver.sink);
  return receiver;
}

PortTest::Sender PortTest::Send(const Port* port) {
  bess::pb::PortOutArg arg;
  arg.set_port(port->name());
  const Sender sender = {Make<Source>("Source"),
                         Make<PortOut>("PortOut", Pack(arg))};
  Connect(sender.source, sender.out);
  return sender;
}

void PortTest::Push(const Sender& sender, const std::string& frame, int count) {
  constexpr int kAtOnce = 4000;
  for (int left = count; left > 0; left -= kAtOnce) {
    for (int i = 0; i < std::min(left, kAtOnce); i++) {
      ASSERT_TRUE(sender.source->Push(MakePacket(frame)));
    }
    while (!worker()->Run(sender.task()).block) {
    }
  }
}

std::vector<Sink::Captured> PortTest::Pull(const Receiver& receiver) {
  // The kernel may take its time.
  constexpr int kPatience = 50;
  for (int idle = 0; idle < kPatience; idle++) {
    if (!worker()->Run(receiver.task()).block) {
      idle = 0;
    } else {
      usleep(1000);
    }
  }
  return receiver.sink->Take();
}

Packet* PortTest::MakePacket(const std::string& frame, size_t segment) {
  Packet* first = nullptr;
  for (size_t at = 0; first == nullptr || at < frame.size(); at += segment) {
    const auto len =
        static_cast<uint16_t>(std::min(segment, frame.size() - at));
    Packet* pkt = pool_->Alloc(len);
    if (pkt == nullptr) {
      ADD_FAILURE() << "the pool is dry";
      break;
    }
    memcpy(pkt->head_data(), frame.data() + at, len);
    if (first == nullptr) {
      first = pkt;
    } else {
      EXPECT_EQ(rte_pktmbuf_chain(first->mbuf(), pkt->mbuf()), 0);
    }
  }
  return first;
}

void PortTest::ExpectClosed(const Port* port) {
  const PortStats stats = port->stats();
  uint64_t received = stats.rx_packets;
  uint64_t entered = stats.tx_packets;
  for (const bess::DropCauseInfo& info : bess::kDropCauses) {
    (info.receive ? received : entered) += stats.drop(info.cause);
  }
  EXPECT_EQ(stats.rx_received, received) << port->name();
  EXPECT_EQ(stats.tx_entered, entered) << port->name();
}
