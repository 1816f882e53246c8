// SPDX-License-Identifier: BSD-3-Clause
//
// Capture files of any content: every frame that is handed out is whole in
// memory, and reading ends with the file or with a reason.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "fuzz/target.h"
#include "modules/capture_reader.h"

namespace {

using openflow_fuzz::fail;

// The reader opens paths, and pipes are not what it reads most.
class MemoryFile {
 public:
  MemoryFile(const uint8_t* data, size_t size)
      : fd_(memfd_create("capture", MFD_CLOEXEC)) {
    if (fd_ < 0 || write(fd_, data, size) != static_cast<ssize_t>(size)) {
      fail("no memory file");
    }
  }
  ~MemoryFile() { close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string path() const { return fmt::format("/proc/self/fd/{}", fd_); }

 private:
  int fd_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const MemoryFile file(data, size);
  try {
    bess::CaptureReader reader(file.path());
    bess::CapturedFrame frame;
    uint64_t sum = 0;
    while (reader.Next(&frame)) {
      // Touches every byte, so that the sanitizer sees a frame that is cut.
      for (uint32_t i = 0; i < frame.len; i++) sum += frame.bytes[i];
      if (frame.wire_len < frame.len) fail("more bytes than there were");
    }
    if (reader.frames() > size) fail("more frames than bytes: {}", sum);
  } catch (const std::runtime_error& error) {
    if (std::string(error.what()).rfind(file.path(), 0) != 0) {
      fail("names no file: {}", error.what());
    }
  }
  return 0;
}
