// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>

namespace bess::internal {

// The address of a Unix socket: a file, or an abstract name.
struct UnixAddress {
  std::string name;  // empty: none
  bool abstract = false;
};

// Whether a driver of this process can listen at the address. Answers why not
// and what helps, empty when it can.
std::string CheckListen(const UnixAddress& address);

// The use of an address by a device while it lives. Clears away the file that a
// process left there when it died, and the one that the driver leaves there.
class ListeningSocket {
 public:
  explicit ListeningSocket(const UnixAddress& address);
  ~ListeningSocket();
  ListeningSocket(const ListeningSocket&) = delete;
  ListeningSocket& operator=(const ListeningSocket&) = delete;

 private:
  void RemoveFile() const;

  const UnixAddress address_;
};

}  // namespace bess::internal
