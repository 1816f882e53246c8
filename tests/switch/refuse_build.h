// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "tests/support/kept_for_good.h"

namespace ofswitch {

// Makes the classifier library refuse so many builds of this process, those
// after `successes` more. No flow text makes it do so, a full memory does.
class RefuseBuild {
 public:
  explicit RefuseBuild(int successes, int refusals = 1);
  ~RefuseBuild();

 private:
  const openflow_test::KeptForGood records_;
};

}  // namespace ofswitch
