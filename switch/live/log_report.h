// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "switch.pb.h"

namespace ofswitch {

// What `request` selects of the first `most` entries of the trace ring, oldest
// first. Answers the position to go on from. Any thread.
uint64_t readLogEntries(const pb::LogRequest& request, size_t most,
                        std::vector<pb::LogEntry>* entries);

// Sets the levels that also go to standard error, by facility, and answers
// those of all facilities. Throws BadRequest for one that does not exist.
pb::LogLevels applyLogLevels(const pb::LogLevels& levels);

}  // namespace ofswitch
