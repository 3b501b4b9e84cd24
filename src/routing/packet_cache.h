// The IDs of the most recent messages seen or sent, so that a message that
// comes back over another path is dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "routing/key_table.h"

namespace qel {

// A first-in-first-out window of the last Capacity() IDs added, held as
// keys (see KeyTable), so checking and adding a message costs no allocation
// once the window is full. Lookups are O(1) and case-sensitive. Not
// thread-safe; the owner serializes calls.
class PacketCache {
 public:
  // A window of capacity IDs; capacity <= 0 holds nothing. Room for up to
  // kReserveUpTo IDs is taken at once; a larger window grows with the IDs
  // added, so a huge setting costs nothing until traffic fills it.
  explicit PacketCache(int32_t capacity = 0);

  static constexpr int32_t kReserveUpTo = 1024;

  // Whether id is among the IDs held; the empty ID also while fewer than
  // Capacity() IDs were added, as the unfilled positions hold it.
  bool Contains(std::string_view id) const { return Contains(id, KeyOf(id)); }
  // The same with id's key already made (KeyOf), so a message is hashed once.
  bool Contains(std::string_view id, const IDKey& key) const;

  // Adds id as the newest; once more than Capacity() are held the oldest
  // falls out. The same ID may be held more than once; it stays contained
  // until its last copy falls out.
  void Add(std::string_view id) { Add(KeyOf(id)); }
  void Add(const IDKey& key);

  int32_t Capacity() const { return capacity_; }

  // Number of IDs held, copies of the same ID included.
  size_t Size() const { return ring_.size(); }

 private:
  int32_t capacity_;
  // Held keys in arrival order, oldest at head_ once the ring is full.
  std::vector<IDKey> ring_;
  size_t head_ = 0;
  KeyTable<> held_;
};

}  // namespace qel
