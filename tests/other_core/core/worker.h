// SPDX-License-Identifier: BSD-3-Clause
#pragma once

class Worker {
 public:
  static constexpr int kMaxWorkers = 16;
};
