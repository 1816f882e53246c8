// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct pcap;

namespace bess {

struct CapturedFrame {
  uint64_t ns = 0;  // time of capture, nanoseconds since 1970
  const uint8_t* bytes = nullptr;
  uint32_t len = 0;       // bytes there are
  uint32_t wire_len = 0;  // bytes there were; more when the capture cut them
};

// Reads one capture file, pcap or pcapng, micro- or nanosecond. For one thread
// at a time.
class CaptureReader {
 public:
  // Throws std::runtime_error, "FILE: reason", for a file that is not there,
  // is no capture, or does not hold Ethernet frames.
  explicit CaptureReader(const std::string& path);

  // Answers false at the end of the file and where it cannot be read on; in
  // the latter case error() says why. The frame is good until the next call.
  bool Next(CapturedFrame* frame);

  const std::string& error() const { return error_; }
  uint64_t frames() const { return frames_; }

  // How far reading has come, and the end of the way, in bytes. The size is 0
  // for what has none, such as a pipe.
  uint64_t position() const;
  uint64_t size() const { return size_; }

 private:
  struct Close {
    void operator()(pcap* file) const;
  };

  std::string path_;
  std::unique_ptr<pcap, Close> pcap_;
  std::string error_;
  uint64_t frames_ = 0;
  uint64_t size_ = 0;
};

// Reads several captures as one, in order of time. Frames of the same time come
// in the order of the inputs; within one input, file order always holds.
class CaptureMerger {
 public:
  // Throws like CaptureReader.
  void Add(const std::string& path, uint32_t port);

  struct Input {
    std::unique_ptr<CaptureReader> reader;
    uint32_t port = 0;
    CapturedFrame next;  // read ahead
    bool ended = false;
  };

  // The earliest frame that is left, and the input it came from; null when
  // none is. The frame is good until the next call.
  const Input* Next();

  const std::vector<Input>& inputs() const { return inputs_; }

 private:
  static void Advance(Input* input);

  std::vector<Input> inputs_;
  Input* last_ = nullptr;  // whose frame was handed out
  bool started_ = false;
};

}  // namespace bess
