#include "routing/packet_cache.h"

#include <algorithm>
#include <utility>

namespace qel {

PacketCache::PacketCache(int32_t capacity) : capacity_(std::max(capacity, 0)) {}

bool PacketCache::Contains(std::string_view id) const {
  // Positions not filled yet hold the empty ID, so a message without one
  // counts as seen until the window is full.
  if (id.empty() && ring_.size() < static_cast<size_t>(capacity_)) return true;
  return index_.find(id) != index_.end();
}

void PacketCache::Add(std::string id) {
  if (capacity_ == 0) return;
  auto* held = &*index_.try_emplace(std::move(id), 0).first;
  ++held->second;
  if (ring_.size() < static_cast<size_t>(capacity_)) {
    ring_.push_back(held);
    return;
  }
  Index::value_type* oldest = std::exchange(ring_[head_], held);
  head_ = (head_ + 1) % ring_.size();
  // Erase through an iterator: the key is the node's own string.
  if (--oldest->second == 0) index_.erase(index_.find(oldest->first));
}

}  // namespace qel
