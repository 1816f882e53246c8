// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <net/if.h>

#include <algorithm>

#include "switch/doctor/checks.h"

namespace ofswitch {
namespace {

constexpr char kNet[] = "/sys/class/net/";

std::string joined(const std::vector<std::string>& words, const char* between) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : between) + word;
  }
  return text;
}

std::string ethtool(const Machine& machine, const std::string& interface,
                    const std::vector<std::string>& offloads) {
  const bool there =
      machine.exists("/usr/sbin/ethtool") || machine.exists("/sbin/ethtool");
  return fmt::format("{}ethtool -K {} {} off",
                     there ? "" : "apt-get install -y ethtool && ", interface,
                     joined(offloads, " off "));
}

// The interface at the other end of the cable, if it is in this namespace.
std::string otherEnd(const Machine& machine, const std::string& name) {
  const auto number = [&](const std::string& interface, const char* file) {
    return machine.read(kNet + interface + "/" + file);
  };
  const std::string link = number(name, "iflink");
  if (link.empty() || link == number(name, "ifindex")) return "";
  for (const std::string& other : machine.list(kNet)) {
    // An index of another namespace may be that of a stranger here.
    if (number(other, "ifindex") == link &&
        number(other, "iflink") == number(name, "ifindex")) {
      return other;
    }
  }
  return "";
}

void checkOffloads(const Machine& machine, const std::string& name,
                   const std::vector<std::string>& on, Findings* out) {
  if (on.empty()) return;
  out->problem(
      fmt::format("{} has offloads on ({}): the kernel merges frames into "
                  "ones too long to pass and leaves checksums to a card that "
                  "is not there",
                  name, joined(on, ", ")),
      ethtool(machine, name, on));
}

}  // namespace

void checkInterface(const Machine& machine, const std::string& name,
                    Findings* out) {
  if (!machine.exists(kNet + name)) {
    out->problem(
        fmt::format("there is no interface {}, only {}", name,
                    joined(machine.list(kNet), ", ")),
        fmt::format("ip link add {0} type veth peer name {0}-peer", name));
    return;
  }
  const unsigned long flags =
      std::strtoul(machine.read(kNet + name + "/flags").c_str(), nullptr, 16);
  if ((flags & IFF_UP) == 0) {
    out->problem(fmt::format("{} is down", name),
                 fmt::format("ip link set {} up", name));
  }
  checkOffloads(machine, name, machine.offloads(name), out);
  const std::string peer = otherEnd(machine, name);
  if (peer.empty()) return;
  std::vector<std::string> on = machine.offloads(peer);
  // What it receives is not the switch's concern.
  std::erase_if(
      on, [](const std::string& one) { return one == "gro" || one == "lro"; });
  checkOffloads(machine, peer, on, out);
}

}  // namespace ofswitch
