// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <google/protobuf/message.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/control_door/raw_call.h"

namespace ofswitch {

// Requests of all kinds, the same ones for the same seed: valid ones, ones with
// extreme values in some fields, and either kind with its bytes damaged.
class RandomRequests {
 public:
  explicit RandomRequests(uint32_t seed) : random_(seed) {}

  struct Request {
    RawMethod method;
    std::string bytes;
  };
  Request next();

 private:
  uint32_t below(uint32_t end) { return random_() % end; }
  bool chance(uint32_t in) { return below(in) == 0; }
  uint64_t number();
  std::string text();
  std::string valid(const RawMethod& method);
  void fill(google::protobuf::Message* message, int depth);
  void damage(std::string* bytes);

  std::mt19937 random_;
};

}  // namespace ofswitch
