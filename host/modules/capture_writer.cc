// SPDX-License-Identifier: BSD-3-Clause
#include "modules/capture_writer.h"

#include <fmt/format.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace bess {
namespace {

constexpr uint32_t kSnapLen = 262144;  // of a frame; no reader takes more

}  // namespace

void CaptureWriter::Close::operator()(pcap* format) const {
  pcap_close(format);
}

void CaptureWriter::Close::operator()(pcap_dumper* dumper) const {
  pcap_dump_close(dumper);
}

CaptureWriter::CaptureWriter(const std::string& path, const std::string& name)
    : name_(name.empty() ? path : name) {
  format_.reset(pcap_open_dead_with_tstamp_precision(
      DLT_EN10MB, kSnapLen, PCAP_TSTAMP_PRECISION_NANO));
  // Opened here and not by libpcap, to which "-" would be standard output.
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) {
    Fail(strerror(errno));
    return;
  }
  dumper_.reset(pcap_dump_fopen(format_.get(), file));
  if (dumper_ == nullptr) {
    Fail(pcap_geterr(format_.get()));  // libpcap has closed the file
  }
}

void CaptureWriter::Write(uint64_t ns, const uint8_t* bytes, uint32_t len) {
  if (!error_.empty()) {
    return;
  }
  pcap_pkthdr header = {};
  header.ts.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
  header.ts.tv_usec = static_cast<suseconds_t>(ns % 1'000'000'000);
  header.caplen = std::min(len, kSnapLen);
  header.len = len;
  errno = 0;
  pcap_dump(reinterpret_cast<u_char*>(dumper_.get()), &header, bytes);
  if (ferror(pcap_dump_file(dumper_.get()))) {
    Fail(strerror(errno));
  }
}

void CaptureWriter::Flush() {
  if (error_.empty() && pcap_dump_flush(dumper_.get()) != 0) {
    Fail(strerror(errno));
  }
}

void CaptureWriter::Fail(const std::string& why) {
  error_ = fmt::format("{}: {}", name_, why);
}

}  // namespace bess
