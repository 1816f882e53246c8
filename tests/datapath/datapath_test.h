// SPDX-License-Identifier: BSD-3-Clause
//
// What the data-path tests share: one module for a suite, emptied between
// tests, and beside it the twin, which gets the same flows and packets. Every
// run is compared with the twin's in full - bytes by gate in order, metadata,
// drops, table and flow counters, buffers lost - so a test needs to state only
// what it is about.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/checksum.h"
#include "tests/support/flow.h"
#include "tests/support/frame.h"
#include "tests/support/module_harness.h"
#include "tests/support/packet.h"
#include "tests/support/reference.h"

namespace openflow_test {

inline const uint32_t kIpA = ip4("10.0.0.1");
inline const uint32_t kIpB = ip4("10.0.0.2");
inline const Ip6 kIp6A = ip6("2001:db8::1");
inline const Ip6 kIp6B = ip6("2001:db8::2");

// The flow counters that tests give to their flow under test.
inline constexpr uint32_t kPackets = 10;
inline constexpr uint32_t kByteCount = 11;

class DataPath : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();

  void SetUp() override;

  ModuleHarness& harness() { return *harness_; }
  ReferenceModule& twin() { return *twin_; }

  void add(uint32_t tableId, const std::vector<Flow>& flows,
           Family family = Family::kIpv4);
  void update(const quil::pb::OpenFlowUpdateFlowsArg& arg);

  // Runs the batch through the module and the twin and expects the same.
  RunResult run(const std::vector<InputPacket>& packets, int wid = 0);

  // The only packet the module made of `packet`, which must have left on
  // `gate`.
  OutputPacket runOne(const InputPacket& packet, uint16_t gate);

 private:
  static std::unique_ptr<ModuleHarness> harness_;
  std::unique_ptr<ReferenceModule> twin_;
};

// For INSTANTIATE_TEST_SUITE_P over rows that have a name.
inline constexpr auto rowName = [](const auto& row) {
  return std::string(row.param.name);
};

// An IPv4 TCP frame for tests that are not about headers.
inline Frame tcpFrame() { return Frame::eth().ipv4(kIpA, kIpB).tcp(7, 80); }

}  // namespace openflow_test
