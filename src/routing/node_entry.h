// What a node knows about another node.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <qel/types.h>

#include "routing/key_table.h"

namespace qel {

// The values a node announces about itself.
struct NodeStrings {
  std::string ID;
  std::string Name;
  std::string Descriptor;
  std::string Address;
  std::string activeUser;
  std::string EncryptionKey;
};

class NodeEntry {
 public:
  NodeEntry();

  const std::string& ID() const { return strings_->ID; }
  const std::string& Name() const { return strings_->Name; }
  const std::string& Descriptor() const { return strings_->Descriptor; }
  const std::string& Address() const { return strings_->Address; }
  const std::string& activeUser() const { return strings_->activeUser; }
  const std::string& EncryptionKey() const { return strings_->EncryptionKey; }
  const NodeStrings& Strings() const { return *strings_; }
  // Every node in a process keeps an entry for each node it heard of, and
  // those entries hold the same values: one copy of them serves them all.
  void SetStrings(NodeStrings strings);

  enmRole Role = role_Peer;
  bool directConn = false;
  bool sharingFiles = false;
  // Which INFO of the node's (counted by the node that keeps the table) this
  // entry holds, so a question can tell an answer to it from an older one.
  uint64_t InfoSerial = 0;
  // When that INFO arrived (TickCount).
  int64_t InfoTick = 0;

  typNodeInfo ToNodeInfo() const {
    return {ID(), Name(), Role, Descriptor(), directConn, Address(), sharingFiles, activeUser()};
  }

 private:
  std::shared_ptr<const NodeStrings> strings_;
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
  // The index slot that holds serial, or of id when serial is kNoSerial.
  size_t Locate(std::string_view id, uint32_t tag, uint64_t serial) const;
  void Index(uint32_t tag, uint32_t serial);
  void Unindex(size_t at);
  static constexpr uint64_t kNoSerial = UINT64_MAX;

  std::deque<NodeEntry> entries_;
  // ID -> serial number of its entry, modulo 2^32 (the table holds far fewer
  // entries); position = serial - dropped_ + 1. Each slot is 32 bits of the
  // ID's seeded hash (never 0; its low bits are the home slot) over the
  // serial, 0 when free; a hit is confirmed against the entry's ID. Linear
  // probing, at most half full, backward-shift deletion: 8 bytes a node
  // where a copy of the ID or its 16-byte key would take 24 or more, and a
  // node keeps an entry for every node whose announcement reached it.
  std::vector<uint64_t> index_;
  size_t indexed_ = 0;
  uint32_t added_ = 0;
  uint32_t dropped_ = 0;
};

}  // namespace qel
