// SPDX-License-Identifier: BSD-3-Clause
#include "switch/commands/service_notice.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace ofswitch {

void tellServiceManager(std::string_view state) {
  const char* path = getenv("NOTIFY_SOCKET");
  sockaddr_un address = {};
  if (path == nullptr || strlen(path) >= sizeof(address.sun_path)) return;
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path, strlen(path));
  // A name that begins so is not in the file system.
  if (path[0] == '@') address.sun_path[0] = '\0';
  const auto length =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path));

  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  // Nothing can be done about a manager that does not listen.
  sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address), length);
  close(fd);
}

}  // namespace ofswitch
