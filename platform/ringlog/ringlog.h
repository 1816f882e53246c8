// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "platform/ringlog/argument.h"
#include "platform/ringlog/ring.h"
#include "platform/ringlog/site.h"
