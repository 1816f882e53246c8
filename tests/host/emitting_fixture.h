// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "probe.h"

// The texts of packets numbered from `from` to below `to`.
inline std::vector<std::string> Numbers(int from, int to) {
  std::vector<std::string> texts;
  for (int i = from; i < to; i++) {
    texts.push_back(std::to_string(i));
  }
  return texts;
}

// A module that emits what a test has it emit, on this thread.
class EmittingTest : public HostTest {
 protected:
  // Emits one packet of that text on each of the gates.
  void Emit(Context* ctx, const std::string& text,
            std::initializer_list<gate_idx_t> gates) {
    for (gate_idx_t gate : gates) {
      probe_->EmitPacket(ctx, MakePacket(text), gate);
    }
  }

  void Run() { worker_.Run(probe_->task()); }

  Probe* probe_ = MakeProbe("probe");
  bess::InlineWorker worker_{0};
};
