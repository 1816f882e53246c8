// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

template <typename F>
struct GenericCommand {
  enum ThreadSafety { THREAD_UNSAFE = 0, THREAD_SAFE = 1 };

  std::string cmd;
  std::string arg_type;
  F func;
  ThreadSafety mt_safe;
};
