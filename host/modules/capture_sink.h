// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "module.h"
#include "modules/capture_source.h"
#include "modules/capture_writer.h"

// Writes what enters it to a pcap file, in the order of the captures it comes
// from and with their time stamps, and frees it. Copies of one input packet
// keep the order in which they were made. What comes from elsewhere has the
// order and the time of its arrival. The file is made when the first packet
// comes.
//
// The file gets its name when it is whole; until then, and when the process is
// ended before, it is called PartOf(path).
//
// With one worker, packets go to the file at the end of each burst. With many,
// each worker keeps its own in an unnamed temporary file next to the output,
// and Finish merges them: the result is the same.
class CaptureSink final : public Module {
 public:
  static constexpr gate_idx_t kNumIGates = 1;
  static constexpr gate_idx_t kNumOGates = 0;
  static const Commands cmds;

  CommandResponse Init(const bess::pb::CaptureSinkArg& arg);
  void DeInit() override;
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;
  std::string GetDesc() const override { return path_; }

  static std::string PartOf(const std::string& path) { return path + ".part"; }

  // Writes what is left, once; what comes later is only counted. When no worker
  // runs the module. Answers "FILE: reason" for what went wrong since the
  // start, empty on success.
  std::string Finish();

  // What has entered. When no worker runs the module.
  uint64_t packets() const;
  uint64_t bytes() const;

 private:
  struct Record {
    uint64_t order;
    uint64_t ns;
    uint32_t len;
    uint32_t at;  // where the bytes are in the lane's buffer
  };
  struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
  };

  // What one worker brings. Its present burst is in memory.
  struct alignas(64) Lane {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    const CaptureSource* source = nullptr;
    uint64_t burst = 0;
    std::vector<Record> records;
    std::vector<uint8_t> buffer;
    std::unique_ptr<FILE, CloseFile> spool;  // Record and bytes, in order
    std::string error;
  };

  void Keep(Lane* lane, const bess::Packet& pkt,
            const CaptureSource::Origin& origin);
  void EndBurst(Lane* lane);
  void Spool(Lane* lane, const Record& record);
  void Fail(Lane* lane);  // with errno; the first failure counts
  void MergeSpools();
  bess::CaptureWriter& Writer();
  std::string WriteError() const;

  std::string path_;
  bool many_workers_ = false;
  bool finished_ = false;
  std::string error_;  // of Finish
  std::unique_ptr<bess::CaptureWriter> writer_;
  std::array<Lane, Worker::kMaxWorkers> lanes_;
};
