// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

namespace bess::internal {

// Whether this machine and this process have what a device needs. Each answers
// what is missing and what helps, empty when nothing is.

bool IsInterface(const std::string& name);

// A network interface of that name in this process's namespace.
std::string CheckInterface(const std::string& name);

// Permission to open packet sockets.
std::string CheckPacketSockets();

// Permission and a kernel to make tap interfaces.
std::string CheckTun();

// A file that can be read; a file that can be written or made.
std::string CheckReadable(const std::string& path);
std::string CheckCreatable(const std::string& path);

// A PCI device at that address ("0000:03:00.0") that is DPDK's to use.
std::string CheckPci(const std::string& address);

}  // namespace bess::internal
