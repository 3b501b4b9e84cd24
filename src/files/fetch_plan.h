// What a windowed fetch holds of a file and what it asks for next: pure
// bookkeeping of byte ranges, with no files, messages or timers.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace qel {

// A set of bytes as disjoint, sorted ranges [first, last], merged where they
// touch.
class ByteSet {
 public:
  // Adds [first, last] (nothing when last < first); returns how many of
  // those bytes were new.
  int64_t Add(int64_t first, int64_t last);
  // How many bytes of [first, last] the set holds.
  int64_t CountIn(int64_t first, int64_t last) const;
  // The first byte of [first, last] the set does not hold, if any.
  std::optional<int64_t> FirstMissing(int64_t first, int64_t last) const;
  // The first byte of [first, last] the set holds, if any.
  std::optional<int64_t> FirstIn(int64_t first, int64_t last) const;
  int64_t Size() const { return size_; }
  size_t Runs() const { return runs_.size(); }
  void Clear();

 private:
  std::map<int64_t, int64_t> runs_;  // first -> last
  int64_t size_ = 0;
};

// One ranged request of a fetch: the bytes [first, last] of the file.
struct FetchAsk {
  int64_t first = 0;
  int64_t last = -1;
};

// A fetch of the bytes [first, last] of a file, asked for in pieces of at
// most `chunk` bytes while fewer than `window` bytes are asked for and not
// yet here. Bytes count as held only when they arrived; whatever was asked
// for and lost is asked for again once the asks are dropped.
class FetchPlan {
 public:
  FetchPlan(int64_t first, int64_t last, int64_t chunk, int64_t window);

  // The next request to send, taking the lowest bytes neither held nor
  // asked for, or nullopt while the window is full or all is asked for.
  std::optional<FetchAsk> Next();
  // Bytes [first, last] arrived: the part inside the fetch is held. Returns
  // the bytes that were new.
  int64_t Arrived(int64_t first, int64_t last);
  // Whether every byte of an ask is held (its request is finished).
  bool Done(const FetchAsk& ask) const;
  // Forgets an ask: what it brought stays held, the rest can be asked anew.
  void Drop(const FetchAsk& ask);
  // Forgets every ask, as after a stall: the missing bytes are asked anew.
  void DropAll();

  bool Complete() const { return held_.Size() == Length(); }
  // The first byte not held, or last + 1 when all are: the bytes before it
  // are held without a gap.
  int64_t FirstMissing() const { return held_.FirstMissing(first_, last_).value_or(last_ + 1); }
  int64_t Held() const { return held_.Size(); }
  int64_t Length() const { return last_ - first_ + 1; }
  // Bytes asked for and not yet here.
  int64_t InFlight() const;
  const std::vector<FetchAsk>& Asks() const { return asks_; }

 private:
  int64_t first_, last_, chunk_, window_;
  ByteSet held_;
  std::vector<FetchAsk> asks_;  // open, a handful: window / chunk of them
};

}  // namespace qel
