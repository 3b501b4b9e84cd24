// Which key each neighbour's node ID was first announced with on a secure link, so that
// another key cannot take the node ID over.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <unordered_map>

namespace qel {

class KeyBindings {
 public:
  // As many as the node cache keeps entries: past that the oldest binding goes.
  static constexpr size_t kMax = 4096;

  // The key nodeID is bound to when that is not key: the announcement must be refused.
  // Else empty, and nodeID is bound to key from now on.
  std::string Bind(const std::string& nodeID, const std::string& key);

 private:
  std::unordered_map<std::string, std::string> keys_;
  std::deque<std::string> order_;  // node IDs, oldest first
};

}  // namespace qel
