// Message IDs held as fixed 16-byte keys, each with a count of the copies
// added and a value, for the caches that drop messages seen before.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace qel {

using IDKey = std::array<uint64_t, 2>;

// A seeded 128-bit hash of id: two IDs meet on one key only by a 2^-128
// chance, and a peer cannot choose IDs that pile onto one run of slots.
IDKey KeyOf(std::string_view id);

struct NoValue {};

// Open addressing with linear probing, at most half full, and backward-shift
// deletion, so lookups never meet tombstones. Adding a key that is held, or
// one that fits the reserved room, allocates nothing. Not thread-safe.
template <typename Value = NoValue>
class KeyTable {
 public:
  // Room for keys keys without growing.
  void Reserve(size_t keys) {
    if (SlotsFor(keys) > slots_.size()) Grow(keys);
  }

  // The value of key, or null when it is not held.
  Value* Find(const IDKey& key) {
    const size_t at = Locate(key);
    return at == kNone ? nullptr : &slots_[at].value;
  }
  const Value* Find(const IDKey& key) const {
    const size_t at = Locate(key);
    return at == kNone ? nullptr : &slots_[at].value;
  }
  bool Contains(const IDKey& key) const { return Locate(key) != kNone; }

  // One more copy of key; its value, default-made for a new key.
  Value& Add(const IDKey& key) {
    Slot& slot = Insert(key);
    ++slot.copies;
    return slot.value;
  }

  // One copy fewer; the key goes when its last copy does.
  void Remove(const IDKey& key) {
    const size_t at = Locate(key);
    if (at != kNone && --slots_[at].copies == 0) Erase(at);
  }

  // Drops every key and the room they took.
  void Release() {
    std::vector<Slot>().swap(slots_);
    used_ = 0;
  }

  size_t Distinct() const { return used_; }

 private:
  struct Slot {
    IDKey key{};
    uint32_t copies = 0;  // 0: free
    [[no_unique_address]] Value value{};
  };
  static constexpr size_t kNone = SIZE_MAX;

  static size_t SlotsFor(size_t keys) { return std::bit_ceil(std::max<size_t>(2 * keys, 16)); }

  size_t Locate(const IDKey& key) const {
    if (slots_.empty()) return kNone;
    const size_t mask = slots_.size() - 1;
    for (size_t i = key[0] & mask;; i = (i + 1) & mask) {
      const Slot& slot = slots_[i];
      if (slot.copies == 0) return kNone;
      if (slot.key == key) return i;
    }
  }

  Slot& Insert(const IDKey& key) {
    if (2 * (used_ + 1) > slots_.size()) Grow(used_ + 1);
    const size_t mask = slots_.size() - 1;
    for (size_t i = key[0] & mask;; i = (i + 1) & mask) {
      Slot& slot = slots_[i];
      if (slot.copies == 0) {
        slot = Slot{key, 0, Value{}};
        ++used_;
        return slot;
      }
      if (slot.key == key) return slot;
    }
  }

  void Erase(size_t hole) {
    const size_t mask = slots_.size() - 1;
    slots_[hole].copies = 0;
    --used_;
    // Backward shift: later members of the run move into the hole when
    // their home position allows.
    for (size_t i = (hole + 1) & mask; slots_[i].copies != 0; i = (i + 1) & mask) {
      const size_t home = slots_[i].key[0] & mask;
      if (((i - home) & mask) >= ((i - hole) & mask)) {
        slots_[hole] = slots_[i];
        slots_[i].copies = 0;
        hole = i;
      }
    }
  }

  void Grow(size_t keys) {
    std::vector<Slot> old(SlotsFor(std::max(keys, slots_.size())));
    old.swap(slots_);
    used_ = 0;
    for (Slot& slot : old) {
      if (slot.copies != 0) Insert(slot.key) = slot;
    }
  }

  // Power-of-two sized.
  std::vector<Slot> slots_;
  size_t used_ = 0;
};

}  // namespace qel
