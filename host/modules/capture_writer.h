// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct pcap;
struct pcap_dumper;

namespace bess {

// Writes Ethernet frames to a pcap file with nanosecond time stamps. The first
// error is kept; writing after it does nothing.
class CaptureWriter {
 public:
  // Makes the file, or empties it. `name` stands for it in errors, unless it is
  // empty.
  explicit CaptureWriter(const std::string& path, const std::string& name = "");

  void Write(uint64_t ns, const uint8_t* bytes, uint32_t len);

  // Puts everything on its way to the disk.
  void Flush();

  // "FILE: reason", or empty.
  const std::string& error() const { return error_; }

 private:
  struct Close {
    void operator()(pcap* format) const;
    void operator()(pcap_dumper* dumper) const;
  };

  void Fail(const std::string& why);

  std::string name_;
  std::unique_ptr<pcap, Close> format_;
  std::unique_ptr<pcap_dumper, Close> dumper_;
  std::string error_;
};

}  // namespace bess
