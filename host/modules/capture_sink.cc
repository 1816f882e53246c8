// SPDX-License-Identifier: BSD-3-Clause
#include "modules/capture_sink.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "internal/registered_class.h"

namespace {

const bess::internal::RegisteredClass<CaptureSink> capture_sink_class(
    "CaptureSink", "capture_sink", "writes packets to a capture file");

// An unnamed file in the directory of `path`: where the output has room, so
// have its parts.
FILE* OpenSpool(const std::string& path) {
  std::string name =
      (std::filesystem::path(path).parent_path() / "spool-XXXXXX").string();
  const int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    return nullptr;
  }
  unlink(name.c_str());
  return fdopen(fd, "w+b");
}

}  // namespace

const Commands CaptureSink::cmds = {};

CommandResponse CaptureSink::Init(const bess::pb::CaptureSinkArg& arg) {
  path_ = arg.path();
  many_workers_ = arg.many_workers();
  max_allowed_workers_ = many_workers_ ? Worker::kMaxWorkers : 1;
  return CommandSuccess();
}

// Who did not come to call Finish does not know the file to be whole.
void CaptureSink::DeInit() {
  if (finished_) {
    return;
  }
  for (Lane& lane : lanes_) {
    EndBurst(&lane);
  }
  writer_.reset();
}

void CaptureSink::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  Lane& lane = lanes_[ctx->wid];
  const auto* source = dynamic_cast<CaptureSource*>(ctx->task->module());
  const uint64_t burst = source != nullptr ? source->burst() : 0;
  if (lane.source != source || lane.burst != burst) {
    EndBurst(&lane);
    lane.source = source;
    lane.burst = burst;
  }
  for (int i = 0; i < batch->cnt(); i++) {
    const bess::Packet& pkt = *batch->pkts()[i];
    lane.packets++;
    lane.bytes += static_cast<uint64_t>(pkt.total_len());
    if (path_.empty() || finished_) {
      continue;
    }
    const auto* origin = source != nullptr ? source->FindOrigin(&pkt) : nullptr;
    // What comes from elsewhere is stamped with the time of its arrival.
    Keep(&lane, pkt,
         origin != nullptr
             ? *origin
             : CaptureSource::Origin{ctx->current_ns, ctx->current_ns});
  }
  if (source == nullptr) {
    EndBurst(&lane);  // no other burst would ever begin
  }
  bess::Packet::Free(batch);
  batch->clear();
}

void CaptureSink::Keep(Lane* lane, const bess::Packet& pkt,
                       const CaptureSource::Origin& origin) {
  const size_t at = lane->buffer.size();
  for (const bess::Packet* segment = &pkt; segment != nullptr;
       segment = segment->next()) {
    const auto* data = segment->head_data<const uint8_t*>();
    lane->buffer.insert(lane->buffer.end(), data, data + segment->head_len());
  }
  lane->records.push_back({origin.order, origin.ns,
                           static_cast<uint32_t>(lane->buffer.size() - at),
                           static_cast<uint32_t>(at)});
}

// The module upstream may emit a burst's packets in any order, table by table
// for one; nothing of a burst comes after the next one has begun.
void CaptureSink::EndBurst(Lane* lane) {
  std::stable_sort(
      lane->records.begin(), lane->records.end(),
      [](const Record& a, const Record& b) { return a.order < b.order; });
  for (const Record& record : lane->records) {
    if (many_workers_) {
      Spool(lane, record);
    } else {
      Writer().Write(record.ns, lane->buffer.data() + record.at, record.len);
    }
  }
  lane->records.clear();
  lane->buffer.clear();
}

void CaptureSink::Spool(Lane* lane, const Record& record) {
  if (!lane->error.empty()) {
    return;
  }
  if (lane->spool == nullptr) {
    lane->spool.reset(OpenSpool(path_));
  }
  if (lane->spool == nullptr ||
      fwrite(&record, sizeof(record), 1, lane->spool.get()) != 1 ||
      fwrite(lane->buffer.data() + record.at, 1, record.len,
             lane->spool.get()) != record.len) {
    Fail(lane);
  }
}

void CaptureSink::Fail(Lane* lane) {
  if (lane->error.empty()) {
    lane->error = fmt::format("{}: {}", path_, strerror(errno));
  }
}

void CaptureSink::MergeSpools() {
  struct Reader {
    Lane* lane;
    Record next;
  };
  const auto advance = [this](Reader* reader) {
    FILE* file = reader->lane->spool.get();
    if (fread(&reader->next, sizeof(Record), 1, file) == 1) {
      return true;
    }
    if (ferror(file)) {
      Fail(reader->lane);
    }
    return false;
  };

  std::vector<Reader> readers;
  for (Lane& lane : lanes_) {
    if (lane.spool != nullptr) {
      if (fflush(lane.spool.get()) != 0) {
        Fail(&lane);
      }
      rewind(lane.spool.get());
      Reader reader{&lane, {}};
      if (advance(&reader)) {
        readers.push_back(reader);
      }
    }
  }
  std::vector<uint8_t> bytes;
  while (!readers.empty()) {
    const auto first = std::min_element(readers.begin(), readers.end(),
                                        [](const Reader& a, const Reader& b) {
                                          return a.next.order < b.next.order;
                                        });
    bytes.resize(first->next.len);
    if (fread(bytes.data(), 1, bytes.size(), first->lane->spool.get()) !=
        bytes.size()) {
      Fail(first->lane);  // cut, because writing it failed
      readers.erase(first);
      continue;
    }
    Writer().Write(first->next.ns, bytes.data(), first->next.len);
    if (!advance(&*first)) {
      readers.erase(first);
    }
  }
  for (Lane& lane : lanes_) {
    lane.spool.reset();
  }
}

bess::CaptureWriter& CaptureSink::Writer() {
  if (writer_ == nullptr) {
    writer_ = std::make_unique<bess::CaptureWriter>(PartOf(path_), path_);
  }
  return *writer_;
}

std::string CaptureSink::Finish() {
  if (finished_) {
    return error_;
  }
  for (Lane& lane : lanes_) {
    EndBurst(&lane);
  }
  MergeSpools();
  if (writer_ != nullptr) {
    writer_->Flush();
  }
  error_ = WriteError();
  finished_ = true;
  if (writer_ != nullptr) {
    writer_.reset();
    const std::string part = PartOf(path_);
    if (!error_.empty()) {
      unlink(part.c_str());
    } else if (rename(part.c_str(), path_.c_str()) != 0) {
      error_ = fmt::format("{}: {}", path_, strerror(errno));
    }
  }
  return error_;
}

// Of all that was written, the first.
std::string CaptureSink::WriteError() const {
  if (writer_ != nullptr && !writer_->error().empty()) {
    return writer_->error();
  }
  for (const Lane& lane : lanes_) {
    if (!lane.error.empty()) {
      return lane.error;
    }
  }
  return "";
}

uint64_t CaptureSink::packets() const {
  uint64_t sum = 0;
  for (const Lane& lane : lanes_) {
    sum += lane.packets;
  }
  return sum;
}

uint64_t CaptureSink::bytes() const {
  uint64_t sum = 0;
  for (const Lane& lane : lanes_) {
    sum += lane.bytes;
  }
  return sum;
}
