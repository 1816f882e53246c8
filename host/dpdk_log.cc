// SPDX-License-Identifier: BSD-3-Clause
#include "dpdk_log.h"

#include <glog/logging.h>
#include <rte_log.h>

#include <mutex>
#include <sstream>

namespace bess {
namespace {

std::mutex mutex;
std::string collected;

ssize_t Collect(void*, const char* text, size_t len) {
  const std::lock_guard lock(mutex);
  collected.append(text, len);
  return static_cast<ssize_t>(len);
}

// Never closed: a thread that took it before a capture ended may still write.
FILE* CollectingStream() {
  static FILE* stream = [] {
    FILE* made = fopencookie(
        nullptr, "w",
        {.read = nullptr, .write = Collect, .seek = nullptr, .close = nullptr});
    if (made != nullptr) {
      setvbuf(made, nullptr, _IOLBF, 0);
    }
    return made;
  }();
  return stream;
}

std::string Collected() {
  const std::lock_guard lock(mutex);
  return collected;
}

}  // namespace

DpdkLogCapture::DpdkLogCapture() : before_(rte_log_get_stream()) {
  {
    const std::lock_guard lock(mutex);
    collected.clear();
  }
  if (FILE* stream = CollectingStream()) {
    rte_openlog_stream(stream);
  }
}

DpdkLogCapture::~DpdkLogCapture() {
  rte_openlog_stream(before_);
  if (const std::string text = Collected(); !text.empty()) {
    VLOG(1) << "DPDK: " << text;
  }
}

std::string DpdkLogCapture::Summary() const {
  std::istringstream lines(Collected());
  std::string summary;
  for (std::string line; std::getline(lines, line);) {
    // The EAL only says that the driver has failed, at every level anew.
    if (!line.empty() && !line.starts_with("EAL: ")) {
      summary += (summary.empty() ? "" : "; ") + line;
    }
  }
  return summary;
}

}  // namespace bess
