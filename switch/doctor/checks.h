// SPDX-License-Identifier: BSD-3-Clause
//
// What the doctor looks at. Each check adds what it finds, the good included.
#pragma once

#include <string>

#include "switch/doctor/finding.h"
#include "switch/doctor/machine.h"
#include "switch/live/config.h"

namespace ofswitch {

// "in switch.yaml: LINE", for what the configuration mends.
std::string inFile(const SwitchConfig& config, const std::string& line);

// Vector instructions and the clock.
void checkProcessor(const Machine& machine, Findings* out);

// Whether each worker has a core, and for itself.
void checkCores(const Machine& machine, const SwitchConfig& config,
                Findings* out);

// Hugepages, or enough memory without.
void checkMemory(const Machine& machine, const SwitchConfig& config,
                 Findings* out);

// Where the control socket is to be.
void checkControl(const Machine& machine, const SwitchConfig& config,
                  Findings* out);

// Whether the port's driver, device and permissions are there.
void checkPort(const Machine& machine, const SwitchConfig& config,
               const PortConfig& port, Findings* out);

// An interface of the kernel's that is to be a port.
void checkInterface(const Machine& machine, const std::string& name,
                    Findings* out);

// A PCI device that is to be a port, by its address as the kernel writes it.
void checkPci(const Machine& machine, const std::string& address,
              Findings* out);

// The network cards that could be ports and are not.
void checkOtherCards(const Machine& machine, const SwitchConfig& config,
                     Findings* out);

}  // namespace ofswitch
