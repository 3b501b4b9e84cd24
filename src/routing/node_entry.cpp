#include "routing/node_entry.h"

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

NodeEntry::NodeEntry(const NodeEntry& other)
    : Role(other.Role),
      directConn(other.directConn),
      sharingFiles(other.sharingFiles),
      InfoSerial(other.InfoSerial),
      strings_(other.strings_),
      ping_(other.ping_ ? std::make_unique<Ping>(*other.ping_) : nullptr) {}

NodeEntry& NodeEntry::operator=(const NodeEntry& other) {
  if (this != &other) *this = NodeEntry(other);
  return *this;
}

void NodeEntry::SetStrings(NodeStrings strings) {
  strings_ = Pool().Intern(std::move(strings));
}

int32_t NodeTable::Find(std::string_view id) const {
  if (id.empty()) return -1;
  const uint32_t* serial = index_.Find(KeyOf(id));
  return serial ? static_cast<int32_t>(static_cast<uint32_t>(*serial - dropped_) + 1) : -1;
}

int32_t NodeTable::FindOrAdd(const std::string& id) {
  if (int32_t found = Find(id); found >= 0) return found;
  if (entries_.size() - 1 >= kMaxEntries) {
    if (!entries_[1].ID().empty()) index_.Remove(KeyOf(entries_[1].ID()));
    entries_.erase(entries_.begin() + 1);
    ++dropped_;
  }
  entries_.emplace_back().SetStrings({.ID = id});
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
