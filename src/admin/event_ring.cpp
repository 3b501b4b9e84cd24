#include "admin/event_ring.h"

namespace qel::admin {

EventRing::EventRing(size_t maxEvents, size_t maxBytes) : maxEvents_(maxEvents), maxBytes_(maxBytes) {}

void EventRing::Push(std::string line) {
  {
    std::lock_guard lock(mutex_);
    bytes_ += line.size();
    lines_.push_back(std::move(line));
    // The newest line stays even when it alone is over the byte cap.
    while (lines_.size() > maxEvents_ || (bytes_ > maxBytes_ && lines_.size() > 1)) {
      bytes_ -= lines_.front().size();
      lines_.pop_front();
      ++first_;
    }
  }
  pushed_.notify_all();
}

void EventRing::Skip(uint64_t count) {
  if (count == 0) return;
  std::lock_guard lock(mutex_);
  first_ += lines_.size() + count;
  lines_.clear();
  bytes_ = 0;
}

EventRing::Batch EventRing::After(uint64_t& cursor, std::chrono::steady_clock::time_point until) {
  std::unique_lock lock(mutex_);
  const auto last = [this] { return first_ + lines_.size() - 1; };
  pushed_.wait_until(lock, until, [&] { return closed_ || last() > cursor; });
  Batch batch;
  batch.closed = closed_;
  if (cursor + 1 < first_) {
    batch.missed = first_ - cursor - 1;
    cursor = first_ - 1;
  }
  for (; cursor < last(); ++cursor)
    batch.events.emplace_back(cursor + 1, lines_[cursor + 1 - first_]);
  return batch;
}

uint64_t EventRing::Last() const {
  std::lock_guard lock(mutex_);
  return first_ + lines_.size() - 1;
}

void EventRing::Close() {
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
  }
  pushed_.notify_all();
}

}  // namespace qel::admin
