// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace bess::internal {

// The kernel's side of a device that is one of its network interfaces: what the
// device's driver does not tell. An interface that is gone, or has moved to
// another network namespace, tells nothing; its name may be another's then.
class KernelInterface {
 public:
  // `index` as the kernel numbers interfaces.
  explicit KernelInterface(unsigned index);

  // As it is called now; empty when it is out of sight.
  std::string name() const;

  // Switched on and with a carrier.
  std::optional<bool> up() const;

  // In Mb/s; none when there is no such thing.
  std::optional<uint32_t> speed() const;

  std::optional<unsigned> mtu() const;
  // Answers an errno value, 0 on success.
  int set_mtu(unsigned mtu) const;

 private:
  unsigned index_;
};

// This process's packet sockets on one interface: those of its driver.
class PacketSockets {
 public:
  explicit PacketSockets(unsigned index);

  size_t count() const { return fds_.size(); }

  // Keeps frames that the kernel itself sends on the interface from being
  // received. Answers an errno value, 0 on success.
  int IgnoreOutgoing() const;

  // Sends what was handed over while the interface was down. Without, it goes
  // with the next packet but one: the kernel reports the past failure first.
  void SendWaiting() const;

  // Frames that came while a receive ring was full, since construction. The
  // kernel forgets them when asked. Any thread.
  uint64_t Missed();

 private:
  std::vector<int> fds_;
  std::mutex mutex_;
  uint64_t missed_ = 0;
};

}  // namespace bess::internal
