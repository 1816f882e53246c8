// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "pb/bess_msg.pb.h"

bess::pb::CommandResponse CommandSuccess();
bess::pb::CommandResponse CommandSuccess(const google::protobuf::Message& data);
bess::pb::CommandResponse CommandFailure(int code);
[[gnu::format(printf, 2, 3)]] bess::pb::CommandResponse CommandFailure(
    int code, const char* fmt, ...);
