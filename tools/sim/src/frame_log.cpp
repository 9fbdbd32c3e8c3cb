#include "kestrel_sim/frame_log.hpp"

namespace kestrel::sim {

void FrameLog::append(const LoggedFrame& entry) {
  if (capacity_ == 0) {
    return;
  }
  if (chunks_.empty() || last_end_ == kChunkEntries) {
    chunks_.push_back(std::make_shared<Chunk>());
    last_end_ = 0;
  }
  chunks_.back()->entries[last_end_++] = entry;
  ++size_;
  if (size_ > capacity_) {
    --size_;
    if (++first_ == kChunkEntries) {
      chunks_.pop_front();  // a reader holding it keeps it alive
      first_ = 0;
    }
  }
}

void FrameLog::clear() {
  chunks_.clear();  // readers keep the chunks they hold
  first_ = 0;
  last_end_ = 0;
  size_ = 0;
}

FrameLog::Snapshot FrameLog::snapshot() const {
  Snapshot s;
  s.chunks_.assign(chunks_.begin(), chunks_.end());
  s.first_ = first_;
  s.last_end_ = last_end_;
  s.size_ = size_;
  return s;
}

}  // namespace kestrel::sim
