// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

namespace bess::utils {

struct [[gnu::packed]] Ethernet {
  struct [[gnu::packed]] Address {
    std::string ToString() const;

    char bytes[6];
  };
};

}  // namespace bess::utils
