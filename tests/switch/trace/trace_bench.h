// SPDX-License-Identifier: BSD-3-Clause
//
// Questions to a switch about packets.
#pragma once

#include <string>

#include "tests/support/frame.h"
#include "tests/switch/live_bench.h"

namespace ofswitch {

inline openflow_test::Frame tcpTo(uint16_t port) {
  return openflow_test::Frame::eth()
      .ipv4(openflow_test::ip4("10.0.0.1"), openflow_test::ip4("10.0.0.2"))
      .tcp(1000, port);
}

inline pb::TraceReply traceWords(LiveBench* bench, const std::string& text) {
  pb::TraceRequest request;
  request.set_text(text);
  return (*bench)->trace(request);
}

inline pb::TraceReply traceFrame(LiveBench* bench,
                                 const openflow_test::Bytes& frame,
                                 uint32_t inPort = 1, uint32_t table = 0) {
  pb::TraceRequest request;
  request.set_frame(frame.data(), frame.size());
  request.set_in_port(inPort);
  request.set_table(table);
  return (*bench)->trace(request);
}

inline openflow_test::Bytes bytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

}  // namespace ofswitch
