// SPDX-License-Identifier: BSD-3-Clause
#include "switch/terminal/standard_error.h"

#include <fcntl.h>
#include <unistd.h>

namespace ofswitch {

void fillStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    // The lowest number that is free, which is this one.
    if (open("/dev/null", fd == STDOUT_FILENO ? O_RDONLY : O_WRONLY) != fd) {
      return;
    }
  }
}

}  // namespace ofswitch
