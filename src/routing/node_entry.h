// What a node knows about another node.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include <qel/types.h>

#include "routing/key_table.h"

namespace qel {

struct NodeEntry {
  std::string ID;
  std::string Name;
  enmRole Role = role_Peer;
  std::string Descriptor;
  bool directConn = false;
  std::string Address;
  bool sharingFiles = false;
  std::string activeUser;
  std::string EncryptionKey;
  // The last ping sent to the node.
  std::string PingReqID;
  int64_t PingStart = 0;
  int32_t PingTime = -1;
  // Which INFO of the node's (counted by the node that keeps the table) this
  // entry holds, so a question can tell an answer to it from an older one.
  uint64_t InfoSerial = 0;

  typNodeInfo ToNodeInfo() const {
    return {ID, Name, Role, Descriptor, directConn, Address, sharingFiles, activeUser};
  }
};

// A node's answers, in the order they first came; position 0 is unused.
// Lookups by ID are O(1). Peers choose the IDs, so the table is bounded:
// once full, the oldest entry makes room for a new one.
class NodeTable {
 public:
  static constexpr size_t kMaxEntries = 4096;

  NodeTable() : entries_(1) {}

  size_t size() const { return entries_.size(); }
  NodeEntry& operator[](size_t position) { return entries_[position]; }
  const NodeEntry& operator[](size_t position) const { return entries_[position]; }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

  // The position of the entry for id, or -1 (also for an empty id).
  int32_t Find(std::string_view id) const;
  // The position of the entry for id, appended (with ID set) when absent.
  // An empty id gets a fresh entry each time, as nothing can find it again.
  int32_t FindOrAdd(const std::string& id);
  // Back to no entries.
  void Clear();

 private:
  std::deque<NodeEntry> entries_;
  // ID -> serial number of its entry; position = serial - dropped_ + 1.
  // Keys rather than copies of the IDs: a node keeps an entry for every
  // node whose announcement reached it.
  KeyTable<uint64_t> index_;
  uint64_t added_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace qel
