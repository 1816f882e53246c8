// SPDX-License-Identifier: BSD-3-Clause
#include "platform/ringlog/ring.h"

#include <unistd.h>
#include <x86intrin.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <deque>
#include <new>

namespace Ringlog {

namespace {

// The low bits of a cell's state; the position is above them.
enum State : uint64_t {
  kEmpty = 0,  // of the first turn only
  kWriting = 1,
  kHead = 2,
  kMore = 3,
};
constexpr unsigned kStateBits = 2;
constexpr uint64_t kStateMask = (1 << kStateBits) - 1;

constexpr uint64_t stateOf(uint64_t position, State state) {
  return position << kStateBits | state;
}

constexpr unsigned kKindBits = 4;
static_assert(kMaxArguments * kKindBits <= 64, "the kinds fill one word");

constexpr size_t textWords(size_t length) { return (length + 7) / 8; }

size_t wordsOf(const Argument& argument) {
  return 1 + (argument.isText() ? textWords(argument.value()) : 0);
}

size_t wordsOf(std::span<const Argument> arguments) {
  size_t words = 0;
  for (const Argument& argument : arguments) {
    words += wordsOf(argument);
  }
  return words;
}

uint64_t kindsOf(std::span<const Argument> arguments) {
  uint64_t kinds = 0;
  for (size_t i = 0; i < arguments.size(); i++) {
    kinds |= static_cast<uint64_t>(arguments[i].kind()) << (i * kKindBits);
  }
  return kinds;
}

// Cuts text so that the arguments fit: from the first that does not, keeping
// one word for each that follows.
void cutText(std::span<Argument> arguments) {
  size_t room = Ring::kMaxWords;
  size_t following = arguments.size();
  for (Argument& argument : arguments) {
    following--;
    if (wordsOf(argument) > room - following) {
      const size_t bytes = (room - following - 1) * 8;
      argument = Argument::ofText(argument.text().substr(0, bytes), true);
    }
    room -= wordsOf(argument);
  }
}

uint32_t threadId() {
  thread_local uint32_t id = 0;
  if (id == 0) [[unlikely]] {
    id = static_cast<uint32_t>(gettid());
  }
  return id;
}

}  // namespace

// Fills the cells of one statement with its words, one cell after the other.
class Ring::CellWriter {
 public:
  CellWriter(const Ring& ring, uint64_t position)
      : ring_(ring), position_(position) {
    claim();
  }

  void put(uint64_t word) {
    if (next_ == cell_->words.end()) [[unlikely]] {
      publish();
      position_++;
      state_ = kMore;
      claim();
    }
    next_++->store(word, std::memory_order_release);
  }

  void putText(std::string_view text) {
    put(text.size());
    for (; text.size() >= 8; text.remove_prefix(8)) {
      uint64_t word;
      memcpy(&word, text.data(), 8);
      put(word);
    }
    if (!text.empty()) {
      uint64_t word = 0;
      memcpy(&word, text.data(), text.size());
      put(word);
    }
  }

  uint64_t position() const { return position_; }

  void publish() {
    cell_->words[0].store(stateOf(position_, state_),
                          std::memory_order_release);
  }

 private:
  // Takes the waste cell when the ring's belongs to someone else: to a later
  // position, or to a writer who was stopped in the middle of it.
  void claim() {
    Cell& cell = ring_.cellAt(position_);
    uint64_t seen = cell.words[0].load(std::memory_order_relaxed);
    const bool free =
        (seen & kStateMask) != kWriting && (seen >> kStateBits) <= position_;
    const bool claimed = free && cell.words[0].compare_exchange_strong(
                                     seen, stateOf(position_, kWriting),
                                     std::memory_order_relaxed);
    cell_ = claimed ? &cell : &ring_.wasteCell();
    next_ = cell_->words.begin() + 1;
  }

  const Ring& ring_;
  uint64_t position_;
  State state_ = kHead;
  Cell* cell_;
  std::atomic<uint64_t>* next_;
};

// A statement as copied out of its cells.
struct Ring::Record {
  uint64_t position;
  uint64_t tsc;
  const Site* site;
  uint32_t thread;
  uint32_t cells;
  uint64_t kinds;
  std::vector<uint64_t> words;

  std::string text() const {
    std::array<Argument, kMaxArguments> arguments;
    size_t count = 0;
    size_t next = 0;
    for (; count < kMaxArguments; count++) {
      const auto kind = static_cast<Argument::Kind>(
          kinds >> (count * kKindBits) & ((1 << kKindBits) - 1));
      if (kind == Argument::Kind::kNone) {
        break;
      }
      const uint64_t value = words[next++];
      arguments[count] = Argument(
          kind, value, reinterpret_cast<const char*>(words.data() + next));
      next += wordsOf(arguments[count]) - 1;
    }
    return format(site->format, std::span(arguments).first(count));
  }
};

// Turns time stamp counter readings into wall time, at the rate at which the
// counter has run since the ring was made.
class Ring::Clock {
 public:
  explicit Clock(const Ring& ring)
      : nowTsc_(__rdtsc()), now_(std::chrono::system_clock::now()) {
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - ring.startTime_;
    nanosecondsPerTick_ =
        elapsed.count() / static_cast<double>(nowTsc_ - ring.startTsc_);
  }

  std::chrono::system_clock::time_point at(uint64_t tsc) const {
    const auto ticks = static_cast<int64_t>(tsc - nowTsc_);
    return now_ + std::chrono::nanoseconds(static_cast<int64_t>(
                      static_cast<double>(ticks) * nanosecondsPerTick_));
  }

 private:
  uint64_t nowTsc_;
  std::chrono::system_clock::time_point now_;
  double nanosecondsPerTick_;
};

Ring& Ring::instance() {
  static auto* ring = new Ring;
  return *ring;
}

Ring::Ring(size_t cells)
    : mask_(std::bit_ceil(std::max(cells, kMaxCells)) - 1),
      cells_(new Cell[numCells() + 1]{}),
      startTsc_(__rdtsc()),
      startTime_(std::chrono::steady_clock::now()) {}

void Ring::write(const Site& site, std::span<const Argument> arguments) {
  const size_t words = wordsOf(arguments);
  if (words > kMaxWords || arguments.size() > kMaxArguments) [[unlikely]] {
    writeCut(site, arguments);
    return;
  }
  size_t cells = 1;
  if (words > kHeadWords) {
    cells += (words - kHeadWords + kMoreWords - 1) / kMoreWords;
  }

  // Before the additions below, which the processor would wait for.
  const uint64_t tsc = __rdtsc();
  CellWriter out(*this, head_.fetch_add(cells, std::memory_order_relaxed));
  out.put(tsc);
  out.put(reinterpret_cast<uintptr_t>(&site));
  out.put(uint64_t{threadId()} << 32 | cells);
  out.put(kindsOf(arguments));
  for (const Argument& argument : arguments) {
    if (argument.isText()) {
      out.putText(argument.text());
    } else {
      out.put(argument.value());
    }
  }
  out.publish();
  // Statements come in groups: the next one finds its cell here.
  __builtin_prefetch(&cellAt(out.position() + 1), 1);
}

// On its own, for the room that the arguments take.
[[gnu::noinline]] void Ring::writeCut(const Site& site,
                                      std::span<const Argument> arguments) {
  std::array<Argument, kMaxArguments> fitting;
  const size_t count = std::min(arguments.size(), kMaxArguments);
  std::copy_n(arguments.begin(), count, fitting.begin());
  cutText(std::span(fitting).first(count));
  write(site, std::span(fitting).first(count));
}

Ring::Found Ring::copyCell(uint64_t position, uint64_t wantedState,
                           std::array<uint64_t, kCellWords>& words) const {
  const Cell& cell = cellAt(position);
  const uint64_t state = cell.words[0].load(std::memory_order_acquire);
  if (state >> kStateBits > position) {
    return Found::kNothing;  // overwritten
  }
  if (state != wantedState) {
    const bool published =
        state == stateOf(position, kHead) || state == stateOf(position, kMore);
    return published ? Found::kNothing : Found::kUnfinished;
  }
  for (size_t i = 1; i < kCellWords; i++) {
    words[i] = cell.words[i].load(std::memory_order_acquire);
  }
  return cell.words[0].load(std::memory_order_relaxed) == state
             ? Found::kStatement
             : Found::kNothing;
}

Ring::Found Ring::copyRecord(uint64_t position, Record& record) const {
  std::array<uint64_t, kCellWords> words;
  Found found = copyCell(position, stateOf(position, kHead), words);
  if (found != Found::kStatement) {
    return found;
  }
  record.position = position;
  record.tsc = words[1];
  record.site = reinterpret_cast<const Site*>(words[2]);
  record.thread = static_cast<uint32_t>(words[3] >> 32);
  record.cells = static_cast<uint32_t>(words[3]);
  record.kinds = words[4];
  record.words.assign(words.end() - kHeadWords, words.end());
  for (uint32_t i = 1; i < record.cells; i++) {
    found = copyCell(position + i, stateOf(position + i, kMore), words);
    if (found != Found::kStatement) {
      return found;
    }
    record.words.insert(record.words.end(), words.begin() + 1, words.end());
  }
  return Found::kStatement;
}

Reading Ring::walk(const Query& query, bool skipUnfinished) const {
  const Clock clock(*this);
  const uint64_t head = head_.load(std::memory_order_acquire);
  const uint64_t oldest = head > numCells() ? head - numCells() : 0;
  uint64_t next = std::max(query.since, oldest);
  size_t found = 0;
  std::deque<Record> records;
  Record record;
  bool isStopped = false;
  while (next < head && found < query.most && !isStopped) {
    switch (copyRecord(next, record)) {
      case Found::kStatement:
        next += record.cells;
        if (query.wanted && !query.wanted(*record.site)) break;
        found++;
        records.push_back(std::move(record));
        if (records.size() > query.last) records.pop_front();
        break;
      case Found::kUnfinished:
        // What has not come for half a turn was dropped: do not wait for it.
        isStopped = !skipUnfinished && head - next < numCells() / 2;
        next += !isStopped;
        break;
      case Found::kNothing:
        next++;
        break;
    }
  }
  Reading reading{{}, next};
  reading.entries.reserve(records.size());
  for (const Record& one : records) {
    reading.entries.push_back({one.position, clock.at(one.tsc), one.thread,
                               one.site->facility, one.site->level, one.text(),
                               one.site->function});
  }
  return reading;
}

std::vector<Entry> Ring::read() const { return walk({}, true).entries; }

Reading Ring::readSince(uint64_t position, size_t most) const {
  return read({.since = position, .most = most});
}

Reading Ring::read(const Query& query) const { return walk(query, false); }

void write(const Site& site, std::span<const Argument> arguments) noexcept {
  try {
    Ring::instance().write(site, arguments);
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace Ringlog
