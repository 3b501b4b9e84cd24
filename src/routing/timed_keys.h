// Keys held for a span of time after they were added, within a cap: the
// ring under the windows that remember message IDs for a while.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "routing/key_table.h"

namespace qel {

// Keys in the order they were added, each with a value, dropped once they
// are spanMs old or when the cap needs room for a newer one. The ring grows
// by doubling up to the cap and is given back when it empties, so an idle
// owner holds nothing. Not thread-safe.
template <typename Value = NoValue>
class TimedKeys {
 public:
  explicit TimedKeys(size_t maxKeys) : maxKeys_(maxKeys) {}

  // How long, in ms, a key is held after it was added; 0 holds none.
  void SetSpan(int64_t ms) { spanMs_ = ms; }
  // Whether keys are held at all.
  bool Holding() const { return spanMs_ > 0 && maxKeys_ > 0; }

  // Drops the keys added spanMs or more before now (ms, non-decreasing
  // between calls).
  void Expire(int64_t now) {
    while (count_ > 0 && now - ring_[head_].addedAt >= spanMs_) PopFront();
  }

  // The value of key, or null when it is not held.
  Value* Find(const IDKey& key) { return held_.Find(key); }

  // Holds key, which is not held yet, from now on; at the cap the oldest
  // key goes first, early, and Cuts() counts it. Only while Holding().
  Value& Add(const IDKey& key, int64_t now) {
    if (count_ == maxKeys_) {
      ++cuts_;
      PopFront();
    }
    PushBack({key, now});
    return held_.Add(key);
  }

  size_t Size() const { return count_; }
  // Keys the cap pushed out before their span had passed.
  uint64_t Cuts() const { return cuts_; }

 private:
  struct Entry {
    IDKey key;
    int64_t addedAt;
  };

  void PopFront() {
    held_.Remove(ring_[head_].key);
    head_ = (head_ + 1) % ring_.size();
    if (--count_ == 0) {
      std::vector<Entry>().swap(ring_);
      held_.Release();
      head_ = 0;
    }
  }

  void PushBack(const Entry& entry) {
    if (count_ == ring_.size()) {
      std::vector<Entry> grown;
      grown.reserve(std::min(std::max<size_t>(2 * count_, 64), maxKeys_));
      for (size_t i = 0; i < count_; ++i) grown.push_back(ring_[(head_ + i) % ring_.size()]);
      grown.resize(grown.capacity());
      ring_.swap(grown);
      head_ = 0;
    }
    ring_[(head_ + count_) % ring_.size()] = entry;
    ++count_;
  }

  size_t maxKeys_;
  int64_t spanMs_ = 0;
  // The held keys, oldest at head_.
  std::vector<Entry> ring_;
  size_t head_ = 0;
  size_t count_ = 0;
  KeyTable<Value> held_;
  uint64_t cuts_ = 0;
};

}  // namespace qel
