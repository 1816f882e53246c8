// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "switch/control/stream_call.h"
#include "switch/control/work_queue.h"

namespace ofswitch {

// The streams of one kind that are under way, each with the reader that fills
// it (`More fill(const grpc::ByteBuffer& request, StreamCall*)`). A reader
// lives as long as its call. Any thread.
template <class Reader>
class CallList {
 public:
  struct Entry {
    std::shared_ptr<Reader> reader;
    std::shared_ptr<StreamCall> call;  // null: about to end
  };

  // Answers one call with `reader`, run by `queue`.
  std::shared_ptr<StreamCall> start(WorkQueue* queue,
                                    grpc::CallbackServerContext* context,
                                    const grpc::ByteBuffer* request,
                                    std::shared_ptr<Reader> reader) {
    std::shared_ptr<StreamCall> call = StreamCall::start(
        queue, context, [reader, request](StreamCall* stream) {
          return reader->fill(*request, stream);
        });
    const std::lock_guard lock(mutex_);
    entries_.push_back({reader, call});
    return call;
  }

  // Those that have not ended; forgets the others.
  std::vector<Entry> alive() {
    const std::lock_guard lock(mutex_);
    std::erase_if(entries_,
                  [](const Weak& entry) { return entry.reader.expired(); });
    std::vector<Entry> alive;
    for (const Weak& entry : entries_) {
      if (auto reader = entry.reader.lock()) {
        alive.push_back({std::move(reader), entry.call.lock()});
      }
    }
    return alive;
  }

 private:
  struct Weak {
    std::weak_ptr<Reader> reader;
    std::weak_ptr<StreamCall> call;
  };

  std::mutex mutex_;
  std::vector<Weak> entries_;
};

}  // namespace ofswitch
