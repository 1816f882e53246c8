// SPDX-License-Identifier: BSD-3-Clause
//
// Capture files for tests, made and read byte by byte: not by libpcap, which
// the code under test uses.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace openflow_test {

struct CaptureRow {
  uint64_t ns = 0;
  std::string bytes;
  uint32_t wireLen = 0;  // 0: all of it was captured

  bool operator==(const CaptureRow&) const = default;
};

enum class CaptureFormat { kPcapMicro, kPcapNano, kPcapNg, kPcapNgNano };

inline constexpr uint32_t kLinkEthernet = 1;
inline constexpr uint32_t kLinkRaw = 101;

std::string captureBytes(const std::vector<CaptureRow>& rows,
                         CaptureFormat format = CaptureFormat::kPcapNano,
                         uint32_t linkType = kLinkEthernet);

// The rows of a nanosecond pcap file as the program writes it. Throws
// std::runtime_error for anything else, trailing bytes included.
std::vector<CaptureRow> readCapture(const std::filesystem::path& path);

void writeFile(const std::filesystem::path& path, const std::string& bytes);
std::string readFile(const std::filesystem::path& path);

// A directory that lives as long as the object.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const {
    return path_ / name;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace openflow_test
