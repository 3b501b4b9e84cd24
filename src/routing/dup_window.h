// The IDs of the messages a node processed or sent lately, so that a copy
// that comes back round a loop after the packetCache list has moved on is
// dropped all the same.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "routing/timed_keys.h"

namespace qel {

class DupWindow {
 public:
  // At most this many IDs are held: 6 MiB of ring and 12 MiB of key table
  // (at most half full), 24 MiB at the moment the table grows. A minute of
  // a flood at 4,000 messages a second fits; past the cap the oldest go
  // before their time, and Cuts() counts them.
  static constexpr size_t kMaxIDs = size_t{1} << 18;

  explicit DupWindow(size_t maxIDs = kMaxIDs) : ids_(maxIDs) {}

  // How long, in ms, an ID is held after it was first noted; 0 holds none.
  void SetSpan(int64_t ms) { ids_.SetSpan(ms); }

  // Whether id was noted within the span before now (ms, non-decreasing
  // between calls); if not, it is held from now on.
  bool Note(std::string_view id, int64_t now) { return Note(KeyOf(id), now); }
  // The same with the ID's key already made (KeyOf).
  bool Note(const IDKey& key, int64_t now);

  size_t Size() const { return ids_.Size(); }
  // IDs the cap pushed out before their span had passed.
  uint64_t Cuts() const { return ids_.Cuts(); }

 private:
  TimedKeys<> ids_;
};

}  // namespace qel
