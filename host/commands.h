// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

// Whether a command may run while workers run its module. One that may not is
// refused with EBUSY until they are paused.
enum ThreadSafety { THREAD_UNSAFE = 0, THREAD_SAFE = 1 };

// One named command of a module class. F is the type of its handler.
template <typename F>
struct GenericCommand {
  using ThreadSafety = ::ThreadSafety;
  using enum ::ThreadSafety;

  std::string cmd;       // the name a front end calls it by
  std::string arg_type;  // the argument's message type, for people and tools
  F func;
  ThreadSafety mt_safe;
};
