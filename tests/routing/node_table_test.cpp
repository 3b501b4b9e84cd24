#include <gtest/gtest.h>

#include <string>

#include <qel/settings.h>

#include "node/node_state.h"
#include "routing/discovery.h"
#include "routing/node_entry.h"

namespace qel {
namespace {

std::string Id(size_t n) {
  return "NODE" + std::to_string(n);
}

TEST(NodeTableTest, KeepsOrderDropsTheOldestAndNeverFindsEmptyIds) {
  NodeTable table;
  const size_t total = NodeTable::kMaxEntries + 1000;
  for (size_t n = 0; n < total; ++n) {
    ASSERT_EQ(table.FindOrAdd(Id(n)), static_cast<int32_t>(std::min(n + 1, table.kMaxEntries)));
  }
  ASSERT_EQ(table.size(), NodeTable::kMaxEntries + 1);
  EXPECT_EQ(table.Find(Id(999)), -1);
  for (size_t n = 1000; n < total; ++n) {
    const int32_t at = table.Find(Id(n));
    ASSERT_EQ(at, static_cast<int32_t>(n - 1000 + 1));
    ASSERT_EQ(table[at].ID, Id(n));
  }
  // A known ID keeps its place; an entry found again is the same one.
  table[table.Find(Id(2000))].Name = "kept";
  EXPECT_EQ(table.FindOrAdd(Id(2000)), 1001);
  EXPECT_EQ(table[1001].Name, "kept");

  table.Clear();
  EXPECT_EQ(table.size(), 1u);
  EXPECT_EQ(table.Find(Id(2000)), -1);
  EXPECT_EQ(table.FindOrAdd(Id(7)), 1);

  // Empty IDs are never found, and take their turn to be dropped.
  for (size_t n = 0; n < NodeTable::kMaxEntries + 10; ++n) table.FindOrAdd("");
  EXPECT_EQ(table.size(), NodeTable::kMaxEntries + 1);
  EXPECT_EQ(table.Find(""), -1);
  EXPECT_EQ(table.FindOrAdd("X"), static_cast<int32_t>(NodeTable::kMaxEntries));
  EXPECT_EQ(table.Find("X"), static_cast<int32_t>(NodeTable::kMaxEntries));
}

TEST(DiscoveryTest, InfoValuesAreCutToWhatTheCacheKeeps) {
  constexpr size_t kCap = 4096;
  const std::string source(kCap + 1, 'S');
  cSettings body;
  body.SaveSetting("Name", Variant("short"));
  for (const char* key : {"Descriptor", "Address", "Encryption-Key", "Active-User"}) {
    body.SaveSetting(key, Variant(std::string(1 << 20, key[0])));
  }
  typMessage info = MakeMessage("INFO", "BROADCAST");
  SetField(info.Fields, "Source", Variant(source));
  info.Body = body.getXML();

  auto node = std::make_shared<NodeState>();
  OnInfo(*node, info, 0);
  ASSERT_EQ(node->NodeCache.size(), 2u);
  const NodeEntry& entry = node->NodeCache[1];
  EXPECT_EQ(entry.ID, source.substr(0, kCap));
  EXPECT_EQ(node->NodeCache.Find(entry.ID), 1);
  EXPECT_EQ(entry.Name, "short");
  for (const std::string* value :
       {&entry.Descriptor, &entry.Address, &entry.EncryptionKey, &entry.activeUser}) {
    EXPECT_EQ(value->size(), kCap);
    EXPECT_LT(value->capacity(), 2 * kCap);  // the cut gives the memory back
  }
}

}  // namespace
}  // namespace qel
