// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "platform/mio/entity.h"
#include "platform/mio/ptr.h"
#include "platform/mio/trace_handle.h"
