// The IDs of the most recent messages seen or sent, so that a message that
// comes back over another path is dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qel {

// A first-in-first-out window of the last Capacity() IDs added. Lookups are
// O(1) and exact (case-sensitive). Not thread-safe; the owner serializes
// calls.
class PacketCache {
 public:
  // A window of capacity IDs; capacity <= 0 holds nothing. Memory grows
  // with the IDs added, never with capacity alone.
  explicit PacketCache(int32_t capacity = 0);

  // Whether id is among the IDs held; the empty ID also while fewer than
  // Capacity() IDs were added, as the unfilled positions hold it.
  bool Contains(std::string_view id) const;

  // Adds id as the newest; once more than Capacity() are held the oldest
  // falls out. The same ID may be held more than once; it stays contained
  // until its last copy falls out.
  void Add(std::string id);

  int32_t Capacity() const { return capacity_; }

  // Number of IDs held, copies of the same ID included.
  size_t Size() const { return ring_.size(); }

 private:
  // Lets lookups by string_view avoid building a std::string.
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  // Copies of each held ID.
  using Index = std::unordered_map<std::string, size_t, Hash, std::equal_to<>>;

  int32_t capacity_;
  Index index_;
  // Held IDs in arrival order, oldest at head_ once the ring is full. Index
  // nodes stay put when the table rehashes, so the ring points into it and
  // each distinct ID is stored once.
  std::vector<Index::value_type*> ring_;
  size_t head_ = 0;
};

}  // namespace qel
