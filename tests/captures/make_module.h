// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <google/protobuf/any.pb.h>

#include <string>

#include "graph.h"

// A module of the class, named by it; null when it refuses the argument.
template <class M>
M* makeModule(const std::string& className,
              const google::protobuf::Message& arg) {
  google::protobuf::Any any;
  any.PackFrom(arg);
  return static_cast<M*>(bess::CreateModule(className, "", any).module);
}
