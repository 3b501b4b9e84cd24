#include "routing/dup_window.h"

#include <algorithm>
#include <bit>

namespace qel {

void DupWindow::SetSpan(int64_t ms) {
  *this = DupWindow(maxIDs_);
  spanMs_ = ms;
  sliceMs_ = (ms + kSlicesPerSpan - 1) / kSlicesPerSpan;
}

bool DupWindow::Note(const IDKey& key, int64_t now) {
  if (spanMs_ <= 0 || maxIDs_ == 0) return false;
  Expire(now);
  const size_t perGeneration = std::max<size_t>(maxIDs_ / kSlicesPerSpan, 1);
  if (live_ == 0 || now >= Open().closedAt || Open().count >= perGeneration) OpenGeneration(now);
  // Past 255 generations an 8-bit number could name a dead one as live.
  if (newest_ - floor_ >= kTagMask || 4 * (used_ + 1) > 3 * slots_.size()) Rebuild(live_ + 1);

  uint64_t print = key[1] & ~kTagMask;
  if (print == 0) print = kTagMask + 1;  // 0 marks a free slot
  const size_t mask = slots_.size() - 1;
  size_t reuse = SIZE_MAX;
  size_t at = (print >> 8) & mask;
  for (;; at = (at + 1) & mask) {
    const uint64_t slot = slots_[at];
    if (slot == 0) break;
    if (!Live(slot)) {
      if (reuse == SIZE_MAX) reuse = at;
    } else if ((slot ^ print) <= kTagMask) {
      return true;
    }
  }
  if (reuse != SIZE_MAX) {
    at = reuse;
  } else {
    ++used_;
  }
  slots_[at] = print | (newest_ & kTagMask);
  ++live_;
  ++Open().count;
  while (live_ > maxIDs_ && oldest_ < newest_) {
    cuts_ += Oldest().count;
    DropOldest();
  }
  return false;
}

void DupWindow::Expire(int64_t now) {
  while (oldest_ <= newest_) {
    const Generation& gen = Oldest();
    const bool closed = oldest_ < newest_ || now >= gen.closedAt;
    if (!closed || now - gen.closedAt < spanMs_) break;
    DropOldest();
  }
  if (live_ == 0 ? !slots_.empty() : slots_.size() > kMinSlots && 8 * live_ < slots_.size()) {
    Rebuild(live_);
  }
}

void DupWindow::DropOldest() {
  live_ -= Oldest().count;
  Oldest() = {};
  ++oldest_;
}

void DupWindow::OpenGeneration(int64_t now) {
  if (oldest_ <= newest_) {
    Open().closedAt = std::min(Open().closedAt, now);
    if (newest_ + 1 - oldest_ >= kMaxGenerations) {
      cuts_ += Oldest().count;
      DropOldest();
    }
  }
  ++newest_;
  if (oldest_ > newest_) oldest_ = newest_;
  Open() = {now + sliceMs_, 0};
}

void DupWindow::Rebuild(size_t room) {
  floor_ = oldest_;
  if (room == 0) {
    std::vector<uint64_t>().swap(slots_);
    std::vector<uint64_t>().swap(spare_);
    used_ = 0;
    return;
  }
  size_t size = std::bit_ceil(std::max(2 * room, kMinSlots));
  // Near the cap the size needed goes back and forth across a power of two: the larger
  // table kept serves the smaller need.
  if (spare_.size() == 2 * size) size = spare_.size();
  if (spare_.size() == size) {
    std::fill(spare_.begin(), spare_.end(), 0);  // pages already in, unlike a new table's
  } else {
    std::vector<uint64_t>(size).swap(spare_);
  }
  spare_.swap(slots_);
  const std::vector<uint64_t>& old = spare_;
  const size_t mask = slots_.size() - 1;
  for (const uint64_t slot : old) {
    if (slot == 0 || !Live(slot)) continue;
    size_t at = (slot >> 8) & mask;
    while (slots_[at] != 0) at = (at + 1) & mask;
    slots_[at] = slot;
  }
  used_ = live_;
  // Kept only for a rebuild of about the same size: one that shrank gives the room back.
  if (spare_.size() > 2 * slots_.size() || 2 * spare_.size() < slots_.size()) {
    std::vector<uint64_t>().swap(spare_);
  }
}

}  // namespace qel
