#include "routing/node_entry.h"

namespace qel {

int32_t NodeTable::Find(std::string_view id) const {
  if (id.empty()) return -1;
  auto it = index_.find(std::string(id));
  return it == index_.end() ? -1 : static_cast<int32_t>(it->second - dropped_ + 1);
}

int32_t NodeTable::FindOrAdd(const std::string& id) {
  if (int32_t found = Find(id); found >= 0) return found;
  if (entries_.size() - 1 >= kMaxEntries) {
    index_.erase(entries_[1].ID);
    entries_.erase(entries_.begin() + 1);
    ++dropped_;
  }
  entries_.emplace_back().ID = id;
  if (!id.empty()) index_.emplace(id, added_);
  ++added_;
  return static_cast<int32_t>(entries_.size() - 1);
}

void NodeTable::Clear() {
  entries_.assign(1, NodeEntry{});
  index_.clear();
  added_ = dropped_ = 0;
}

}  // namespace qel
