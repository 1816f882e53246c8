// SPDX-License-Identifier: BSD-3-Clause
#include <fmt/format.h>
#include <net/if.h>

#include <algorithm>
#include <cstdlib>

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

// The kernel takes no longer ones.
std::string peerNameOf(const std::string& name) {
  constexpr std::string_view kEnd = "-peer";
  return name.substr(0, IFNAMSIZ - 1 - kEnd.size()).append(kEnd);
}

// Down, or nothing at the other end.
void checkLink(const Machine& machine, const std::string& name,
               const std::string& peer, Findings* out) {
  const auto isUp = [&](const std::string& interface) {
    const std::string flags = machine.read(kNet + interface + "/flags");
    return (std::strtoul(flags.c_str(), nullptr, 16) & IFF_UP) != 0;
  };
  if (!isUp(name)) {
    out->problem(fmt::format("{} is down", name),
                 fmt::format("ip link set {} up", name));
  }
  if (!peer.empty() && !isUp(peer)) {
    out->problem(fmt::format("{}, the other end of {}, is down", peer, name),
                 fmt::format("ip link set {} up", peer));
  } else if (isUp(name) && machine.read(kNet + name + "/carrier") == "0") {
    out->problem(
        fmt::format("{} has no carrier: nothing is at the other end of the "
                    "cable, or that is down",
                    name),
        "");
  }
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
    out->problem(fmt::format("there is no interface {}, only {}", name,
                             joined(machine.list(kNet), ", ")),
                 name.size() < IFNAMSIZ
                     ? fmt::format("ip link add {} type veth peer name {}",
                                   name, peerNameOf(name))
                     : "");
    return;
  }
  const std::string peer = otherEnd(machine, name);
  checkLink(machine, name, peer, out);
  checkOffloads(machine, name, machine.offloads(name), out);
  if (peer.empty()) return;
  std::vector<std::string> on = machine.offloads(peer);
  // What it receives is not the switch's concern.
  std::erase_if(
      on, [](const std::string& one) { return one == "gro" || one == "lro"; });
  checkOffloads(machine, peer, on, out);
}

}  // namespace ofswitch
