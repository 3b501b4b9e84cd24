#include <gtest/gtest.h>

#include <string>

#include "routing/node_entry.h"

namespace qel {
namespace {

std::string Id(size_t n) {
  return "NODE" + std::to_string(n);
}

TEST(NodeTableTest, KeepsOrderAndFindsEveryEntryAfterTheOldestAreDropped) {
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
}

TEST(NodeTableTest, EmptyIdsAreNeverFoundAndStayBounded) {
  NodeTable table;
  for (size_t n = 0; n < NodeTable::kMaxEntries + 10; ++n) table.FindOrAdd("");
  EXPECT_EQ(table.size(), NodeTable::kMaxEntries + 1);
  EXPECT_EQ(table.Find(""), -1);
  EXPECT_EQ(table.FindOrAdd("X"), static_cast<int32_t>(NodeTable::kMaxEntries));
  EXPECT_EQ(table.Find("X"), static_cast<int32_t>(NodeTable::kMaxEntries));
}

}  // namespace
}  // namespace qel
