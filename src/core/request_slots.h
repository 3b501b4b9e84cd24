// Entries keyed by a request identifier, oldest first and bounded: the
// answers waiting calls expect, the calls waiting for an answer.
#pragma once

#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace qel {

// A waiting call opens a slot and closes it when its wait ends, so a reply
// that comes later finds nothing and is dropped. Nested waits hold several
// slots at once; past kLimit the oldest goes, so the table has a bound
// whatever happens.
template <typename Answer, size_t Limit = 4096>
class RequestSlots {
 public:
  static constexpr size_t kLimit = Limit;

  // Opens an empty slot for reqID (a fresh identifier), replacing any
  // slot of that identifier.
  void Open(const std::string& reqID) {
    Close(reqID);
    if (order_.size() >= kLimit) {
      index_.erase(order_.front().first);
      order_.pop_front();
    }
    order_.emplace_back(reqID, Answer{});
    index_.emplace(reqID, std::prev(order_.end()));
  }

  // The open slot of reqID, or nullptr. Valid until the table next changes.
  Answer* Find(const std::string& reqID) {
    auto found = index_.find(reqID);
    return found == index_.end() ? nullptr : &found->second->second;
  }

  // Removes the slot and gives its answer; nullopt when there was none.
  std::optional<Answer> Close(const std::string& reqID) {
    auto found = index_.find(reqID);
    if (found == index_.end()) return std::nullopt;
    std::optional<Answer> answer(std::move(found->second->second));
    order_.erase(found->second);
    index_.erase(found);
    return answer;
  }

  // The oldest slot's identifier and answer; nullptr when there is none.
  const std::pair<std::string, Answer>* Oldest() const {
    return order_.empty() ? nullptr : &order_.front();
  }

  size_t size() const { return order_.size(); }

 private:
  using Order = std::list<std::pair<std::string, Answer>>;
  Order order_;  // oldest first
  std::unordered_map<std::string, typename Order::iterator> index_;
};

}  // namespace qel
