#include "routing/node_entry.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>

namespace qel {
namespace {

// The values held by entries anywhere in the process, each once. Nodes may
// run on different threads, hence the lock.
class StringPool {
 public:
  std::shared_ptr<const NodeStrings> Intern(NodeStrings strings) {
    std::string key;
    for (const std::string* value :
         {&strings.ID, &strings.Name, &strings.Descriptor, &strings.Address, &strings.activeUser,
          &strings.EncryptionKey}) {
      // Sizes first, so no two lists of values make the same key.
      key += std::to_string(value->size());
      key += ':';
      key += *value;
    }
    std::lock_guard lock(mutex_);
    std::weak_ptr<const NodeStrings>& slot = held_[key];
    if (auto shared = slot.lock()) return shared;
    std::shared_ptr<const NodeStrings> shared(new NodeStrings(std::move(strings)),
                                              [this, key](const NodeStrings* gone) {
                                                Forget(key);
                                                delete gone;
                                              });
    slot = shared;
    return shared;
  }

 private:
  void Forget(const std::string& key) {
    std::lock_guard lock(mutex_);
    // Another thread may have put new values under the key meanwhile.
    if (auto it = held_.find(key); it != held_.end() && it->second.expired()) held_.erase(it);
  }

  std::mutex mutex_;
  std::unordered_map<std::string, std::weak_ptr<const NodeStrings>> held_;
};

StringPool& Pool() {
  // Never destroyed: entries of static lifetime may outlive it otherwise.
  static auto* pool = new StringPool;
  return *pool;
}

const std::shared_ptr<const NodeStrings>& NoStrings() {
  static const auto* none = new std::shared_ptr<const NodeStrings>(std::make_shared<NodeStrings>());
  return *none;
}

}  // namespace

NodeEntry::NodeEntry() : strings_(NoStrings()) {}

void NodeEntry::SetStrings(NodeStrings strings) {
  strings_ = Pool().Intern(std::move(strings));
}

namespace {

uint32_t TagOf(std::string_view id) {
  const uint32_t tag = static_cast<uint32_t>(KeyOf(id)[0]);
  return tag != 0 ? tag : 1;
}

}  // namespace

size_t NodeTable::Locate(std::string_view id, uint32_t tag, uint64_t serial) const {
  if (index_.empty()) return SIZE_MAX;
  const size_t mask = index_.size() - 1;
  for (size_t at = tag & mask;; at = (at + 1) & mask) {
    const uint64_t slot = index_[at];
    if (slot == 0) return SIZE_MAX;
    if (static_cast<uint32_t>(slot >> 32) != tag) continue;
    const uint32_t held = static_cast<uint32_t>(slot);
    if (serial != kNoSerial ? held == serial
                            : entries_[static_cast<uint32_t>(held - dropped_) + 1].ID() == id) {
      return at;
    }
  }
}

void NodeTable::Index(uint32_t tag, uint32_t serial) {
  if (2 * (indexed_ + 1) > index_.size()) {
    std::vector<uint64_t> old(std::max<size_t>(2 * index_.size(), 16));
    old.swap(index_);
    indexed_ = 0;
    for (const uint64_t slot : old) {
      if (slot != 0) Index(static_cast<uint32_t>(slot >> 32), static_cast<uint32_t>(slot));
    }
  }
  const size_t mask = index_.size() - 1;
  size_t at = tag & mask;
  while (index_[at] != 0) at = (at + 1) & mask;
  index_[at] = (uint64_t{tag} << 32) | serial;
  ++indexed_;
}

void NodeTable::Unindex(size_t hole) {
  const size_t mask = index_.size() - 1;
  index_[hole] = 0;
  --indexed_;
  // Backward shift: later members of the run move into the hole when their
  // home slot allows, so lookups never meet a gap inside a run.
  for (size_t at = (hole + 1) & mask; index_[at] != 0; at = (at + 1) & mask) {
    const size_t home = static_cast<uint32_t>(index_[at] >> 32) & mask;
    if (((at - home) & mask) >= ((at - hole) & mask)) {
      index_[hole] = index_[at];
      index_[at] = 0;
      hole = at;
    }
  }
}

int32_t NodeTable::Find(std::string_view id) const {
  if (id.empty()) return -1;
  const size_t at = Locate(id, TagOf(id), kNoSerial);
  if (at == SIZE_MAX) return -1;
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint32_t>(index_[at]) - dropped_) +
                              1);
}

int32_t NodeTable::FindOrAdd(const std::string& id) {
  if (int32_t found = Find(id); found >= 0) return found;
  if (entries_.size() - 1 >= kMaxEntries) {
    const std::string& oldest = entries_[1].ID();
    if (!oldest.empty()) {
      const size_t at = Locate(oldest, TagOf(oldest), dropped_);
      if (at != SIZE_MAX) Unindex(at);
    }
    entries_.erase(entries_.begin() + 1);
    ++dropped_;
  }
  entries_.emplace_back().SetStrings({.ID = id});
  if (!id.empty()) Index(TagOf(id), added_);
  ++added_;
  return static_cast<int32_t>(entries_.size() - 1);
}

void NodeTable::Clear() {
  entries_.assign(1, NodeEntry{});
  std::vector<uint64_t>().swap(index_);
  indexed_ = 0;
  added_ = dropped_ = 0;
}

}  // namespace qel
