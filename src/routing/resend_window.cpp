#include "routing/resend_window.h"

#include <algorithm>

namespace qel {

void ResendWindow::PopFront() {
  held_.Remove(ring_[head_].key);
  head_ = (head_ + 1) % ring_.size();
  if (--count_ == 0) {
    std::vector<Entry>().swap(ring_);
    held_.Release();
    head_ = 0;
  }
}

void ResendWindow::PushBack(const Entry& entry) {
  if (count_ == ring_.size()) {
    std::vector<Entry> grown;
    grown.reserve(std::min(std::max<size_t>(2 * count_, 64), maxIDs_));
    for (size_t i = 0; i < count_; ++i) grown.push_back(ring_[(head_ + i) % ring_.size()]);
    grown.resize(grown.capacity());
    ring_.swap(grown);
    head_ = 0;
  }
  ring_[(head_ + count_) % ring_.size()] = entry;
  ++count_;
}

void ResendWindow::Expire(int64_t now) {
  while (count_ > 0 && now - ring_[head_].seenAt >= spanMs_) PopFront();
}

ResendWindow::Seen ResendWindow::Note(std::string_view id, int64_t now) {
  Expire(now);
  if (spanMs_ <= 0 || maxIDs_ == 0) return Seen::First;
  const IDKey key = KeyOf(id);
  if (int64_t* confirmed = held_.Find(key)) {
    if (now - *confirmed < kConfirmGapMs) return Seen::Recent;
    *confirmed = now;
    return Seen::Again;
  }
  if (count_ == maxIDs_) {
    ++cuts_;
    PopFront();
  }
  PushBack({key, now});
  held_.Add(key) = now;
  return Seen::First;
}

}  // namespace qel
