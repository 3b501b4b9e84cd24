#include "routing/packet_cache.h"

#include <algorithm>
#include <bit>
#include <random>
#include <utility>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace qel {
namespace {

// Seeded per process: IDs come from peers, and a fixed seed would let one
// send IDs that all land on the same run of slots.
uint64_t Seed() {
  static const uint64_t seed = [] {
    std::random_device device;
    return (uint64_t{device()} << 32) ^ device();
  }();
  return seed;
}

size_t SlotsFor(size_t ids) {
  return std::bit_ceil(std::max<size_t>(2 * ids, 16));
}

}  // namespace

PacketCache::PacketCache(int32_t capacity) : capacity_(std::max(capacity, 0)) {
  if (capacity_ == 0) return;
  const size_t reserve = static_cast<size_t>(std::min(capacity_, kReserveUpTo));
  ring_.reserve(reserve);
  slots_.resize(SlotsFor(reserve));
}

PacketCache::Key PacketCache::KeyOf(std::string_view id) {
  const XXH128_hash_t h = XXH3_128bits_withSeed(id.data(), id.size(), Seed());
  return {h.low64, h.high64};
}

size_t PacketCache::Find(const Key& key) const {
  if (slots_.empty()) return kNone;
  const size_t mask = slots_.size() - 1;
  for (size_t i = key[0] & mask;; i = (i + 1) & mask) {
    const Slot& slot = slots_[i];
    if (slot.copies == 0) return kNone;
    if (slot.key == key) return i;
  }
}

PacketCache::Slot& PacketCache::Insert(const Key& key) {
  if (2 * (used_ + 1) > slots_.size()) Grow();
  const size_t mask = slots_.size() - 1;
  for (size_t i = key[0] & mask;; i = (i + 1) & mask) {
    Slot& slot = slots_[i];
    if (slot.copies == 0) {
      slot.key = key;
      ++used_;
      return slot;
    }
    if (slot.key == key) return slot;
  }
}

void PacketCache::Erase(size_t hole) {
  const size_t mask = slots_.size() - 1;
  slots_[hole].copies = 0;
  --used_;
  // Backward shift: later members of the run move into the hole when their
  // home position allows, so lookups never need tombstones.
  for (size_t i = (hole + 1) & mask; slots_[i].copies != 0; i = (i + 1) & mask) {
    const size_t home = slots_[i].key[0] & mask;
    if (((i - home) & mask) >= ((i - hole) & mask)) {
      slots_[hole] = slots_[i];
      slots_[i].copies = 0;
      hole = i;
    }
  }
}

void PacketCache::Grow() {
  std::vector<Slot> old(SlotsFor(std::max(used_ + 1, slots_.size())));
  old.swap(slots_);
  used_ = 0;
  for (const Slot& slot : old) {
    if (slot.copies != 0) Insert(slot.key).copies = slot.copies;
  }
}

bool PacketCache::Contains(std::string_view id) const {
  // Positions not filled yet hold the empty ID, so a message without one
  // counts as seen until the window is full.
  if (id.empty() && ring_.size() < static_cast<size_t>(capacity_)) return true;
  return Find(KeyOf(id)) != kNone;
}

void PacketCache::Add(std::string_view id) {
  if (capacity_ == 0) return;
  const Key key = KeyOf(id);
  ++Insert(key).copies;
  if (ring_.size() < static_cast<size_t>(capacity_)) {
    ring_.push_back(key);
    return;
  }
  const Key oldest = std::exchange(ring_[head_], key);
  head_ = (head_ + 1) % ring_.size();
  const size_t at = Find(oldest);
  if (--slots_[at].copies == 0) Erase(at);
}

}  // namespace qel
