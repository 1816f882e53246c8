// SPDX-License-Identifier: BSD-3-Clause
#pragma once

namespace bess {

// What the host tells modules about, through Module::OnEvent.
enum class Event {
  // All workers are paused and are about to run again.
  PreResume,
};

}  // namespace bess
