// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

#include "interface_fixture.h"

// A cable between "left", which the ports use, and "right".
class VethTest : public InterfaceTest {
 protected:
  void SetUp() override {
    InterfaceTest::SetUp();
    if (!IsSkipped()) {
      Ip("link add left type veth peer name right");
      Ip("link set left up");
      Ip("link set right up");
    }
  }
  void TearDown() override {
    if (!IsSkipped()) {
      Ip("link del left");
    }
  }

  bess::Port* OpenLeft(const std::string& args = "") {
    return Open("left", {.device = "net_af_packet0,iface=left" + args});
  }
};
