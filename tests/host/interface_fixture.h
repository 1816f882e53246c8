// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "network_namespace.h"
#include "port_harness.h"

// Why the program is in no network namespace of its own; empty when it is.
extern std::string no_namespace;

// Ports that are network interfaces of the kernel. They live in a namespace of
// the test's own, for which it needs to be root, or a kernel that lets users
// make namespaces.
class InterfaceTest : public PortTest {
 protected:
  void SetUp() override {
    if (!no_namespace.empty()) {
      GTEST_SKIP() << no_namespace;
    }
  }

  // Waits until the port has seen its link go up or down.
  static bool LinkGoes(const bess::Port* port, bool up) {
    for (int i = 0; i < 500 && port->link_up() != up; i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return port->link_up() == up;
  }
};
