// The simulated bus's frame log: bounded, appended to by the bus threads, and read by tests that
// may copy tens of thousands of entries. Entries live in fixed chunks shared with readers, so a
// reader holds the owner's lock only long enough to note which chunks and how many entries are
// its to read, and copies them after letting go: the bus never waits on a slow reader (under a
// sanitizer a full copy takes tens of milliseconds, longer than the motors' communication
// time-out).
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

#include "kestrel_sim/frame.hpp"
#include "kestrel_sim/simulated_motor.hpp"

namespace kestrel::sim {

struct LoggedFrame {
  enum class Direction { kReceived, kSent };
  TimePoint time;
  Direction direction = Direction::kReceived;
  Frame frame;
  ReceivedCommand command;  // received frames: as the addressed motor understood it
};

// Not synchronised itself: the owner calls every member under one lock, and reads a Snapshot's
// entries after releasing it. Appends never touch an entry a snapshot covers, and chunks never
// move, so those reads race with nothing.
class FrameLog {
 public:
  // Small enough that a chunk comes from the allocator's free lists, not a fresh mapping: a
  // collector that clears the log every millisecond makes the bus start a chunk as often.
  static constexpr size_t kChunkEntries = 128;
  struct Chunk {
    std::array<LoggedFrame, kChunkEntries> entries;
  };

  // The entries logged when it was taken, oldest first.
  class Snapshot {
   public:
    size_t size() const { return size_; }
    template <typename Visit>
    void for_each(Visit visit) const {
      for (size_t c = 0; c < chunks_.size(); ++c) {
        const size_t begin = c == 0 ? first_ : 0;
        const size_t end = c + 1 == chunks_.size() ? last_end_ : kChunkEntries;
        for (size_t i = begin; i < end; ++i) {
          visit(chunks_[c]->entries[i]);
        }
      }
    }

   private:
    friend class FrameLog;
    std::vector<std::shared_ptr<const Chunk>> chunks_;
    size_t first_ = 0;     // in the first chunk
    size_t last_end_ = 0;  // in the last chunk
    size_t size_ = 0;
  };

  explicit FrameLog(size_t capacity) : capacity_(capacity) {}

  // Appends, dropping the oldest entry beyond the capacity.
  void append(const LoggedFrame& entry);
  void clear();
  size_t size() const { return size_; }
  Snapshot snapshot() const;

 private:
  size_t capacity_;
  std::deque<std::shared_ptr<Chunk>> chunks_;
  size_t first_ = 0;     // oldest live entry, in the front chunk
  size_t last_end_ = 0;  // entries used in the back chunk
  size_t size_ = 0;
};

}  // namespace kestrel::sim
