#include "routing/packet_cache.h"

#include <algorithm>
#include <utility>

namespace qel {

PacketCache::PacketCache(int32_t capacity) : capacity_(std::max(capacity, 0)) {
  if (capacity_ == 0) return;
  const size_t reserve = static_cast<size_t>(std::min(capacity_, kReserveUpTo));
  ring_.reserve(reserve);
  held_.Reserve(reserve);
}

bool PacketCache::Contains(std::string_view id, const IDKey& key) const {
  // Positions not filled yet hold the empty ID, so a message without one
  // counts as seen until the window is full.
  if (id.empty() && ring_.size() < static_cast<size_t>(capacity_)) return true;
  return held_.Contains(key);
}

void PacketCache::Add(const IDKey& key) {
  if (capacity_ == 0) return;
  held_.Add(key);
  if (ring_.size() < static_cast<size_t>(capacity_)) {
    ring_.push_back(key);
    return;
  }
  held_.Remove(std::exchange(ring_[head_], key));
  head_ = (head_ + 1) % ring_.size();
}

}  // namespace qel
