// SPDX-License-Identifier: BSD-3-Clause
// The variant of DPDK's ring that states its memory order in atomics, which
// ThreadSanitizer understands.
#define RTE_USE_C11_MEM_MODEL

#include "switch/live/controller_port.h"

#include <fmt/format.h>
#include <rte_errno.h>
#include <rte_ring.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/mio/mio.h"
#include "platform/twinlog/twinlog.h"
#include "switch/live/controller_frame.h"
#include "switch/terminal/standard_error.h"

namespace ofswitch {
namespace {

constexpr unsigned kQueueLength = 4096;
constexpr auto kWriterSleep = std::chrono::milliseconds(5);
// Bytes of a frame that the log shows.
constexpr size_t kShownBytes = 64;
const Mio::TraceHandle trace("Controller", 0);

void add(std::atomic<uint64_t>* counter, uint64_t n) {
  counter->store(counter->load(std::memory_order_relaxed) + n,
                 std::memory_order_relaxed);
}

ControllerFrame unwrap(const bess::Packet& pkt) {
  return controllerFrame(pkt.head_data<const uint8_t*>(), pkt.data_len(),
                         static_cast<uint32_t>(pkt.total_len()));
}

void tracePacket(const bess::Packet& pkt) {
  constexpr char kDigits[] = "0123456789abcdef";
  const ControllerFrame punted = unwrap(pkt);
  const auto* bytes = pkt.head_data<const uint8_t*>() + punted.skip;
  std::array<char, 2 * kShownBytes> hex;
  const size_t shown =
      std::min({kShownBytes, size_t{punted.length},
                static_cast<size_t>(pkt.data_len() - punted.skip)});
  for (size_t i = 0; i < shown; i++) {
    hex[2 * i] = kDigits[bytes[i] >> 4];
    hex[2 * i + 1] = kDigits[bytes[i] & 15];
  }
  TWINLOG_TRACE(trace, 2, "packet for the controller: reason %s, %s bytes: %s",
                punted.reason, punted.length,
                std::string_view(hex.data(), 2 * shown));
}

// The ring alone would soon have forgotten it, for each packet leaves a line.
void tellFailure(const std::string& error) {
  TWINLOG_TRACE(trace, 0, "capture: %s", error);
  printError("ofswitch: controller.capture: {}\n", error);
}

const bool registered = ModuleBuilder::RegisterModuleClass(
    [] { return new ControllerPort; }, ControllerPort::kClassName, "controller",
    "takes what flows send to the controller", 1, 0, {},
    MODULE_INIT_FUNC(&Module::Init));

}  // namespace

ControllerPort::ControllerPort() { max_allowed_workers_ = Worker::kMaxWorkers; }

ControllerPort::~ControllerPort() { stopCapture(); }

void ControllerPort::ProcessBatch(Context* ctx, bess::PacketBatch* batch) {
  PerWorker& mine = workers_[ctx->wid];
  uint64_t bytes = 0;
  for (int i = 0; i < batch->cnt(); i++) {
    const bess::Packet& pkt = *batch->pkts()[i];
    bytes += static_cast<uint64_t>(pkt.total_len());
    tracePacket(pkt);
  }
  const auto count = static_cast<unsigned>(batch->cnt());
  add(&mine.packets, count);
  add(&mine.bytes, bytes);
  unsigned taken = 0;
  if (queue_ != nullptr) {
    taken = rte_ring_enqueue_burst(
        queue_, reinterpret_cast<void**>(batch->pkts()), count, nullptr);
    add(&mine.notCaptured, count - taken);
  }
  bess::Packet::Free(batch->pkts() + taken, count - taken);
  batch->clear();
}

std::string ControllerPort::startCapture(const std::string& path) {
  bess::CaptureWriter file(path);
  file.Flush();
  if (!file.error().empty()) return file.error();
  queue_ = rte_ring_create(fmt::format("capture-{}", name()).c_str(),
                           kQueueLength, SOCKET_ID_ANY, RING_F_SC_DEQ);
  if (queue_ == nullptr) {
    return fmt::format("{}: no memory for a queue of packets: {}", path,
                       rte_strerror(rte_errno));
  }
  stop_ = false;
  writer_ = std::thread(&ControllerPort::writeCapture, this, std::move(file));
  return "";
}

void ControllerPort::writeCapture(bess::CaptureWriter writer) {
  bool isTold = false;
  std::vector<uint8_t> frame;
  for (;;) {
    // Read before the queue: what was queued before the stop is written.
    const bool last = stop_.load(std::memory_order_acquire);
    void* pointers[32];
    const unsigned count =
        rte_ring_dequeue_burst(queue_, pointers, 32, nullptr);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    for (unsigned i = 0; i < count; i++) {
      auto* pkt = static_cast<bess::Packet*>(pointers[i]);
      frame.clear();
      for (const bess::Packet* segment = pkt; segment != nullptr;
           segment = segment->next()) {
        const auto* data = segment->head_data<const uint8_t*>();
        frame.insert(frame.end(), data, data + segment->head_len());
      }
      const ControllerFrame punted = unwrap(*pkt);
      writer.Write(static_cast<uint64_t>(
                       std::chrono::duration_cast<std::chrono::nanoseconds>(now)
                           .count()),
                   frame.data() + punted.skip, punted.length);
      bess::Packet::Free(pkt);
    }
    writer.Flush();
    if (!writer.error().empty()) {
      add(&notWritten_, count);
      if (!isTold) tellFailure(writer.error());
      isTold = true;
    }
    if (count > 0) continue;
    if (last) break;
    std::this_thread::sleep_for(kWriterSleep);
  }
  error_ = writer.error();
}

std::string ControllerPort::stopCapture() {
  if (!writer_.joinable()) return "";
  stop_.store(true, std::memory_order_release);
  writer_.join();
  rte_ring_free(queue_);
  queue_ = nullptr;
  return error_;
}

ControllerPort::Counts ControllerPort::counts() const {
  Counts counts;
  for (const PerWorker& worker : workers_) {
    counts.packets += worker.packets.load(std::memory_order_relaxed);
    counts.bytes += worker.bytes.load(std::memory_order_relaxed);
    counts.notCaptured += worker.notCaptured.load(std::memory_order_relaxed);
  }
  counts.notWritten = notWritten_.load(std::memory_order_relaxed);
  return counts;
}

}  // namespace ofswitch
