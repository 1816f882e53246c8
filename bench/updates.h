// SPDX-License-Identifier: BSD-3-Clause
//
// Updates of a module's flows, and what of them the classifier library took:
// whoever links this has the library's two functions in between.
#pragma once

#include <google/protobuf/any.pb.h>

#include <functional>
#include <vector>

#include "modules/openflow/openflow.h"
#include "openflow.pb.h"

namespace bench {

// Of one update, in milliseconds: all of it, and what of it the library took.
// Processor time of the command thread, on which all of it runs.
struct UpdateCost {
  double update = 0;
  double library = 0;
};

// A message that adds `flows` to table 0.
google::protobuf::Any addsOf(
    const std::vector<quil::pb::OpenFlowAddFlow>& flows,
    quil::pb::OpenFlowType type = quil::pb::OPENFLOW_TYPE_IPV4);

// A module whose table 0 is bound.
class Updates {
 public:
  using Rules = std::vector<of_flow_acl_rule>;

  static Updates& instance();

  // Runs the command. All that it replaces is freed when this answers.
  UpdateCost send(const google::protobuf::Any& message);

  // Deletes the flows 1 to `flows`.
  void clear(uint32_t flows,
             quil::pb::OpenFlowType type = quil::pb::OPENFLOW_TYPE_IPV4);

  // The stored IPv4 rules as a build gets them.
  Rules rules();

  // What the library takes for a classifier of `rules`, in milliseconds.
  double bare(const Rules& rules);

  // Called at the end of every build of the library; empty for nothing.
  static void setAfterBuild(std::function<void()> work);

 private:
  Updates();

  OpenFlow* module_;
};

}  // namespace bench
