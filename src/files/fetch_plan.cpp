#include "files/fetch_plan.h"

#include <algorithm>
#include <iterator>

namespace qel {

int64_t ByteSet::Add(int64_t first, int64_t last) {
  if (last < first) return 0;
  const int64_t added = (last - first + 1) - CountIn(first, last);
  // Merge every run that overlaps or touches [first, last].
  auto it = runs_.upper_bound(first);
  if (it != runs_.begin()) {
    auto prev = std::prev(it);
    if (prev->second + 1 >= first) it = prev;
  }
  while (it != runs_.end() && it->first <= last + 1) {
    first = std::min(first, it->first);
    last = std::max(last, it->second);
    size_ -= it->second - it->first + 1;
    it = runs_.erase(it);
  }
  runs_.emplace(first, last);
  size_ += last - first + 1;
  return added;
}

int64_t ByteSet::CountIn(int64_t first, int64_t last) const {
  if (last < first) return 0;
  int64_t count = 0;
  auto it = runs_.upper_bound(first);
  if (it != runs_.begin()) --it;
  for (; it != runs_.end() && it->first <= last; ++it) {
    const int64_t from = std::max(first, it->first);
    const int64_t to = std::min(last, it->second);
    if (to >= from) count += to - from + 1;
  }
  return count;
}

std::optional<int64_t> ByteSet::FirstMissing(int64_t first, int64_t last) const {
  int64_t at = first;
  auto it = runs_.upper_bound(first);
  if (it != runs_.begin()) --it;
  for (; it != runs_.end() && at <= last; ++it) {
    if (it->second < at) continue;
    if (it->first > at) break;
    at = it->second + 1;
  }
  if (at > last) return std::nullopt;
  return at;
}

bool ByteSet::Joins(int64_t first, int64_t last) const {
  auto it = runs_.upper_bound(last + 1);  // runs starting at or before last + 1
  if (it == runs_.begin()) return false;
  return std::prev(it)->second + 1 >= first;
}

std::optional<int64_t> ByteSet::FirstIn(int64_t first, int64_t last) const {
  auto it = runs_.upper_bound(first);
  if (it != runs_.begin() && std::prev(it)->second >= first) return first;
  if (it != runs_.end() && it->first <= last) return it->first;
  return std::nullopt;
}

void ByteSet::Clear() {
  runs_.clear();
  size_ = 0;
}

FetchPlan::FetchPlan(int64_t first, int64_t last, int64_t chunk, int64_t window)
    : first_(first),
      last_(last),
      chunk_(std::max<int64_t>(chunk, 1)),
      window_(std::max<int64_t>(window, 1)) {}

std::optional<FetchAsk> FetchPlan::Next() {
  if (InFlight() >= window_) return std::nullopt;
  // The lowest byte that is neither held nor inside an open ask.
  int64_t at = first_;
  for (;;) {
    std::optional<int64_t> missing = held_.FirstMissing(at, last_);
    if (!missing) return std::nullopt;
    at = *missing;
    const auto covering = std::find_if(asks_.begin(), asks_.end(), [&](const FetchAsk& a) {
      return a.first <= at && at <= a.last;
    });
    if (covering == asks_.end()) break;
    at = covering->last + 1;
    if (at > last_) return std::nullopt;
  }
  // Up to a chunk, stopping at the next held byte or open ask.
  int64_t end = std::min(last_, at + chunk_ - 1);
  for (const FetchAsk& a : asks_) {
    if (a.first > at) end = std::min(end, a.first - 1);
  }
  if (std::optional<int64_t> held = held_.FirstIn(at, end)) end = *held - 1;
  FetchAsk ask{at, end};
  asks_.push_back(ask);
  return ask;
}

int64_t FetchPlan::Arrived(int64_t first, int64_t last) {
  first = std::max(first, first_);
  last = std::min(last, last_);
  if (held_.Runs() >= kMaxRuns && !held_.Joins(first, last)) return -1;
  return held_.Add(first, last);
}

bool FetchPlan::Done(const FetchAsk& ask) const {
  return held_.CountIn(ask.first, ask.last) == ask.last - ask.first + 1;
}

void FetchPlan::Drop(const FetchAsk& ask) {
  std::erase_if(asks_,
                [&](const FetchAsk& a) { return a.first == ask.first && a.last == ask.last; });
}

void FetchPlan::DropAll() {
  asks_.clear();
}

int64_t FetchPlan::InFlight() const {
  int64_t bytes = 0;
  for (const FetchAsk& a : asks_) bytes += (a.last - a.first + 1) - held_.CountIn(a.first, a.last);
  return bytes;
}

}  // namespace qel
