// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct pcap;
struct pcap_dumper;

namespace bess {

// Writes Ethernet frames to a pcap file with nanosecond time stamps. The first
// error is kept; writing after it does nothing. For one thread at a time.
class CaptureWriter {
 public:
  // Makes the file, or empties it. `name` stands for it in errors, unless it is
  // empty.
  explicit CaptureWriter(const std::string& path, const std::string& name = "");

  // `ns` since 1970. Of a frame longer than 262,144 bytes the start is written,
  // and how long it was.
  void Write(uint64_t ns, const uint8_t* bytes, uint32_t len);

  // Gives everything to the system.
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
