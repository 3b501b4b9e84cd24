#include "routing/key_bindings.h"

namespace qel {

std::string KeyBindings::Bind(const std::string& nodeID, const std::string& key) {
  auto [at, added] = keys_.try_emplace(nodeID, key);
  if (!added) return at->second == key ? std::string() : at->second;
  order_.push_back(nodeID);
  if (order_.size() > kMax) {
    keys_.erase(order_.front());
    order_.pop_front();
  }
  return {};
}

}  // namespace qel
