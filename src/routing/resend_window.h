// The IDs of confirmed messages, kept as long as their senders may still
// resend them: a resend that arrives after the duplicate cache has moved on
// is confirmed again but not delivered a second time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "routing/timed_keys.h"

namespace qel {

class ResendWindow {
 public:
  // At most this many IDs are held (under 3 MiB); past it the oldest go
  // before their time, and Cuts() counts them.
  static constexpr size_t kMaxIDs = 32767;
  // Copies of one message that flooding brings in together are not
  // confirmed again; a resend comes a confirmation tick (500 ms) later at
  // the earliest.
  static constexpr int64_t kConfirmGapMs = 250;

  explicit ResendWindow(size_t maxIDs = kMaxIDs) : ids_(maxIDs) {}

  // How long, in ms, an ID is held after it was first seen; 0 holds none.
  void SetSpan(int64_t ms) { ids_.SetSpan(ms); }

  enum class Seen {
    First,   // not held: now held, and confirmed now
    Again,   // held, last confirmed kConfirmGapMs or more ago: confirm again
    Recent,  // held and confirmed lately: stay quiet
  };
  // Notes a message asking for confirmation with id at time now (ms,
  // non-decreasing between calls).
  Seen Note(std::string_view id, int64_t now);

  size_t Size() const { return ids_.Size(); }
  // IDs the cap pushed out before their span had passed.
  uint64_t Cuts() const { return ids_.Cuts(); }

 private:
  // Each held ID's last confirmation time.
  TimedKeys<int64_t> ids_;
};

}  // namespace qel
