// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/ringlog/argument.h"
#include "platform/ringlog/site.h"

namespace Ringlog {

// A statement that ran, formatted.
struct Entry {
  uint64_t position;  // grows from entry to entry, with gaps
  std::chrono::system_clock::time_point time;
  uint32_t thread;  // as gettid() has it
  std::string facility;
  unsigned level;
  std::string text;
  std::string function;  // the one that the statement stands in
};

// What a reader wants of the statements from a position on: those that
// `wanted` answers true for, all without it; no more than the first `most`;
// the last `last` of these. Nothing else is formatted, which is most of the
// work.
struct Query {
  uint64_t since = 0;
  size_t most = SIZE_MAX;
  size_t last = SIZE_MAX;
  std::function<bool(const Site&)> wanted = nullptr;
};

// Entries, and the position to go on from.
struct Reading {
  std::vector<Entry> entries;
  uint64_t next;
};

// The last trace statements of all threads, in fixed memory.
//
// A statement takes one or more consecutive cells:
//
//   word  0        1     2     3                4      5 ...
//        +--------+-----+-----+----------------+------+------------------+
//   head | state  | TSC | site| thread | cells | kinds| argument words   |
//        +--------+-----+-----+----------------+------+------------------+
//   more | state  | argument words                                       |
//        +--------+------------------------------------------------------+
//
// Numbers are one word, text is its length and then its bytes. Positions count
// cells from the start of the process; cell `position % cells` holds it. A
// writer reserves its positions with one addition, claims each cell by setting
// its state to "position, writing", fills it, and publishes it by setting the
// state to "position, head" or "position, more". A reader copies the words and
// takes them only if the state has not changed meanwhile. Words are stored with
// release and loaded with acquire order, which costs nothing on x86: a reader
// that gets a word of a later position then also sees the claim of its cell.
//
// Writers never wait and never allocate. A writer that was stopped for a whole
// turn of the ring, or meets the cell of one that was, drops its statement.
class Ring {
 public:
  static constexpr size_t kCellWords = 16;
  static constexpr size_t kDefaultCells = 16384;  // 2 MiB
  static constexpr size_t kMaxCells = 52;         // of one statement
  static constexpr size_t kHeadWords = kCellWords - 5;
  static constexpr size_t kMoreWords = kCellWords - 1;
  // Room for the arguments of one statement, 6208 bytes; text beyond it is cut,
  // and printed with a mark.
  static constexpr size_t kMaxWords = kHeadWords + (kMaxCells - 1) * kMoreWords;

  // The process's ring, made when first used, never destroyed.
  static Ring& instance();

  // The number of cells is rounded up to a power of two above kMaxCells.
  explicit Ring(size_t cells = kDefaultCells);

  // Stores one statement. Callable from any thread at any time.
  void write(const Site& site, std::span<const Argument> arguments);

  // All that the ring holds, oldest first. Statements that are being written
  // are left out.
  std::vector<Entry> read() const;

  // What came at `position` or later and is still there; stops in front of a
  // statement that is being written, and after `most` entries. Start with 0, go
  // on with `next`.
  Reading readSince(uint64_t position, size_t most = SIZE_MAX) const;

  // The same of what the query asks for.
  Reading read(const Query& query) const;

  size_t numCells() const { return mask_ + 1; }

 private:
  struct alignas(64) Cell {
    std::array<std::atomic<uint64_t>, kCellWords> words;
  };
  static_assert(sizeof(Cell) == 128);

  // Where the words of a statement go, cell by cell.
  class CellWriter;
  struct Record;
  class Clock;

  enum class Found { kStatement, kNothing, kUnfinished };

  void writeCut(const Site& site, std::span<const Argument> arguments);
  Cell& cellAt(uint64_t position) const { return cells_[position & mask_]; }
  // Behind the others: where dropped words go. Never read.
  Cell& wasteCell() const { return cells_[numCells()]; }
  Found copyCell(uint64_t position, uint64_t wantedState,
                 std::array<uint64_t, kCellWords>& words) const;
  Found copyRecord(uint64_t position, Record& record) const;
  Reading walk(const Query& query, bool skipUnfinished) const;

  const uint64_t mask_;
  const std::unique_ptr<Cell[]> cells_;
  const uint64_t startTsc_;
  const std::chrono::steady_clock::time_point startTime_;
  // On a line of its own: the only word all writers share.
  alignas(64) std::atomic<uint64_t> head_{0};
};

// Stores a statement into the process's ring. Lost while there is no memory to
// make that ring.
void write(const Site& site, std::span<const Argument> arguments) noexcept;

}  // namespace Ringlog
