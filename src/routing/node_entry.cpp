#include "routing/node_entry.h"

namespace qel {

int32_t NodeTable::Find(std::string_view id) const {
  if (id.empty()) return -1;
  const uint64_t* serial = index_.Find(KeyOf(id));
  return serial ? static_cast<int32_t>(*serial - dropped_ + 1) : -1;
}

int32_t NodeTable::FindOrAdd(const std::string& id) {
  if (int32_t found = Find(id); found >= 0) return found;
  if (entries_.size() - 1 >= kMaxEntries) {
    if (!entries_[1].ID.empty()) index_.Remove(KeyOf(entries_[1].ID));
    entries_.erase(entries_.begin() + 1);
    ++dropped_;
  }
  entries_.emplace_back().ID = id;
  if (!id.empty()) index_.Add(KeyOf(id)) = added_;
  ++added_;
  return static_cast<int32_t>(entries_.size() - 1);
}

void NodeTable::Clear() {
  entries_.assign(1, NodeEntry{});
  index_.Release();
  added_ = dropped_ = 0;
}

}  // namespace qel
