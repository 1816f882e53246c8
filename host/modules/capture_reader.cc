// SPDX-License-Identifier: BSD-3-Clause
#include "modules/capture_reader.h"

#include <fmt/format.h>
#include <pcap/pcap.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace bess {

void CaptureReader::Close::operator()(pcap* file) const { pcap_close(file); }

CaptureReader::CaptureReader(const std::string& path) : path_(path) {
  // Opened here and not by libpcap, to which "-" would be standard input.
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) {
    throw std::runtime_error(fmt::format("{}: {}", path, strerror(errno)));
  }
  struct stat status;
  if (fstat(fileno(file), &status) == 0) {
    if (S_ISDIR(status.st_mode)) {
      fclose(file);
      throw std::runtime_error(fmt::format("{}: {}", path, strerror(EISDIR)));
    }
    if (S_ISREG(status.st_mode)) {
      size_ = static_cast<uint64_t>(status.st_size);
    }
  }
  char why[PCAP_ERRBUF_SIZE] = "";
  pcap_.reset(pcap_fopen_offline_with_tstamp_precision(
      file, PCAP_TSTAMP_PRECISION_NANO, why));
  if (pcap_ == nullptr) {
    fclose(file);
    throw std::runtime_error(fmt::format("{}: {}", path, why));
  }
  const int link = pcap_datalink(pcap_.get());
  if (link != DLT_EN10MB) {
    const char* name = pcap_datalink_val_to_name(link);
    throw std::runtime_error(
        fmt::format("{}: link type {}: only Ethernet captures can be read",
                    path, name != nullptr ? name : std::to_string(link)));
  }
}

bool CaptureReader::Next(CapturedFrame* frame) {
  pcap_pkthdr* header;
  const u_char* bytes;
  const int result = pcap_next_ex(pcap_.get(), &header, &bytes);
  if (result != 1) {
    if (result == PCAP_ERROR) {
      error_ = fmt::format("{}: after packet {}: {}", path_, frames_,
                           pcap_geterr(pcap_.get()));
    }
    return false;
  }
  frames_++;
  frame->ns = static_cast<uint64_t>(header->ts.tv_sec) * 1'000'000'000 +
              static_cast<uint64_t>(header->ts.tv_usec);
  frame->bytes = bytes;
  frame->len = header->caplen;
  // A file may claim less than it holds.
  frame->wire_len = std::max(header->len, header->caplen);
  return true;
}

uint64_t CaptureReader::position() const {
  const off_t at = ftello(pcap_file(pcap_.get()));
  return at < 0 ? 0 : static_cast<uint64_t>(at);
}

void CaptureMerger::Add(const std::string& path, uint32_t port) {
  Input input;
  input.reader = std::make_unique<CaptureReader>(path);
  input.port = port;
  inputs_.push_back(std::move(input));
}

void CaptureMerger::Advance(Input* input) {
  input->ended = !input->reader->Next(&input->next);
}

const CaptureMerger::Input* CaptureMerger::Next() {
  if (!started_) {
    started_ = true;
    for (Input& input : inputs_) {
      Advance(&input);
    }
  } else if (last_ != nullptr) {
    Advance(last_);
  }
  // A capture a port: too few of them for anything but a walk.
  last_ = nullptr;
  for (Input& input : inputs_) {
    if (!input.ended && (last_ == nullptr || input.next.ns < last_->next.ns)) {
      last_ = &input;
    }
  }
  return last_;
}

}  // namespace bess
