// The IDs of the messages a node processed or sent lately, so that a copy
// that comes back round a loop after the packetCache list has moved on is
// dropped all the same.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "routing/key_table.h"

namespace qel {

// Each ID is held as one 64-bit slot of an open-addressed table (linear
// probing, at most 3/4 full): 56 bits of the ID's seeded key and the 8-bit
// number of the generation it was noted in. A generation gathers the IDs of
// at most span/8 ms (and at most an eighth of the cap); it ends whole, once
// span ms have passed since it closed, and its slots are then free for new
// IDs without being touched. So:
// - an ID is held at least span ms after it was noted and at most
//   span + ceil(span / 8) ms (ms as the caller's clock gives them), unless
//   the cap pushes its generation out early (Cuts() counts those IDs);
// - a new ID is taken for a held one only when their 56 bits agree (the
//   home slot comes from them too, so a rebuild needs nothing else): a
//   chance of (IDs held) / 2^56 per message, 2^-38 with the cap full;
// - a note costs one hash and, the table being small and the probe short,
//   about one cache miss; ending a generation costs nothing per ID;
// - the table is rebuilt (live IDs only) when dead slots crowd it, shrinks
//   when the live IDs drop to an eighth of it, and is given back when none
//   are left. Expire lets an idle owner give it back without noting. The
//   table a rebuild leaves is kept for the next one of about its size: a
//   flood rebuilds every few hundred thousand IDs, and faulting in a fresh
//   table each time cost more than the rebuild.
// Not thread-safe.
class DupWindow {
 public:
  // At most this many IDs are held: 4 to 8 MiB of table in a steady flood
  // and about as much kept for the next rebuild. A minute of a flood at 4,000 messages a second fits; past the cap
  // the oldest generation goes before its time, and Cuts() counts its IDs.
  static constexpr size_t kMaxIDs = size_t{1} << 18;

  explicit DupWindow(size_t maxIDs = kMaxIDs) : maxIDs_(maxIDs) {}

  // How long, in ms, an ID is held after it was first noted; 0 holds none.
  // Forgets every ID held.
  void SetSpan(int64_t ms);

  // Whether id was noted within the span before now (ms, non-decreasing
  // between calls); if not, it is held from now on.
  bool Note(std::string_view id, int64_t now) { return Note(KeyOf(id), now); }
  // The same with the ID's key already made (KeyOf).
  bool Note(const IDKey& key, int64_t now);

  // Drops the generations whose span is over at now (same clock as Note)
  // and gives back the room they took; for an owner that may be idle.
  void Expire(int64_t now);

  size_t Size() const { return live_; }
  // IDs the cap pushed out before their span had passed.
  uint64_t Cuts() const { return cuts_; }
  // Bytes of table held.
  size_t HeldBytes() const { return (slots_.capacity() + spare_.capacity()) * sizeof(uint64_t); }

 private:
  static constexpr int64_t kSlicesPerSpan = 8;
  // Generations alive at once: up to 9 ended by time within a span plus
  // up to 8 ended by count, and the open one.
  static constexpr size_t kMaxGenerations = 32;
  static constexpr uint64_t kTagMask = 0xFF;
  static constexpr size_t kMinSlots = 64;

  struct Generation {
    int64_t closedAt = 0;  // for the open one: when it must close
    size_t count = 0;
  };

  Generation& Open() { return gens_[newest_ % kMaxGenerations]; }
  Generation& Oldest() { return gens_[oldest_ % kMaxGenerations]; }
  void DropOldest();
  void OpenGeneration(int64_t now);
  // Whether slot (non-zero) belongs to a generation still held.
  bool Live(uint64_t slot) const {
    return ((newest_ - (slot & kTagMask)) & kTagMask) <= newest_ - oldest_;
  }
  // Moves the live IDs into a table with room for room IDs, or frees it
  // when room is 0.
  void Rebuild(size_t room);

  size_t maxIDs_;
  int64_t spanMs_ = 0;
  int64_t sliceMs_ = 0;
  // Power-of-two sized; 0 is a free slot.
  std::vector<uint64_t> slots_;
  std::vector<uint64_t> spare_;  // the table before the last rebuild, for the next one
  size_t used_ = 0;  // non-zero slots, live or dead
  size_t live_ = 0;
  // Generations oldest_..newest_ are held (none when live_ is 0); those
  // from floor_ may still have slots in the table, so the 8-bit numbers in
  // the slots stay unambiguous while newest_ - floor_ < 256.
  uint64_t oldest_ = 1;
  uint64_t newest_ = 0;
  uint64_t floor_ = 1;
  std::array<Generation, kMaxGenerations> gens_{};
  uint64_t cuts_ = 0;
};

}  // namespace qel
