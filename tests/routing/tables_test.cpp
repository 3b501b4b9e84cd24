// The routing tables: the node cache and what INFO puts in it, the IDs
// already seen and the learned routes.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include <qel/settings.h>

#include "core/stats.h"
#include "node/node_state.h"
#include "routing/discovery.h"
#include "routing/dup_window.h"
#include "routing/node_entry.h"
#include "routing/packet_cache.h"
#include "routing/resend_window.h"
#include "routing/route_table.h"

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
    ASSERT_EQ(table[at].ID(), Id(n));
  }
  // A known ID keeps its place; an entry found again is the same one.
  table[table.Find(Id(2000))].SetStrings({.ID = Id(2000), .Name = "kept"});
  EXPECT_EQ(table.FindOrAdd(Id(2000)), 1001);
  EXPECT_EQ(table[1001].Name(), "kept");

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
  constexpr size_t kCap = 4096;  // an entry's ID and values together
  const std::string source(kCap / 4, 'S');
  cSettings body;
  body.SaveSetting("Name", Variant("short"));
  for (const char* key : {"Descriptor", "Address", "Encryption-Key", "Active-User"}) {
    body.SaveSetting(key, Variant(std::string(1 << 20, key[0])));
  }
  typMessage info = MakeMessage("INFO", "BROADCAST");
  SetField(info.Fields, "Source", Variant(source));
  info.Body = body.getXML();

  auto node = std::make_shared<NodeState>();
  const int64_t refused = TheStats().Refusals[static_cast<size_t>(Refusal::NodeCache)];
  OnInfo(*node, info, {});
  ASSERT_EQ(node->NodeCache.size(), 2u);
  const NodeEntry& entry = node->NodeCache[1];
  EXPECT_EQ(entry.ID(), source);
  EXPECT_EQ(node->NodeCache.Find(entry.ID()), 1);
  // The address comes first; the cut gives the memory back.
  EXPECT_EQ(entry.Address().size(), kCap - source.size());
  EXPECT_LT(entry.Address().capacity(), 2 * kCap);
  EXPECT_EQ(entry.EncryptionKey() + entry.Name() + entry.activeUser() + entry.Descriptor(), "");
  EXPECT_EQ(TheStats().Refusals[static_cast<size_t>(Refusal::NodeCache)], refused + 1);
}

TEST(PacketCacheTest, HoldsTheLastCapacityIdsCopiesIncluded) {
  PacketCache cache(3), none(0);
  EXPECT_TRUE(cache.Contains(""));  // unfilled positions hold the empty ID
  for (const char* id : {"a", "a", "b"}) cache.Add(id);
  EXPECT_FALSE(cache.Contains(""));
  cache.Add("c");  // one "a" falls out, the other keeps it held
  EXPECT_TRUE(cache.Contains("a"));
  cache.Add("a");  // the older copy falls out as this one comes in
  cache.Add("d");
  EXPECT_TRUE(cache.Contains("a") && !cache.Contains("b"));
  for (int i = 0; i < 10; ++i) cache.Add("w" + std::to_string(i));  // wraps again and again
  for (const char* id : {"a", "c", "d", "w6"}) EXPECT_FALSE(cache.Contains(id)) << id;
  for (const char* id : {"w7", "w8", "w9"}) EXPECT_TRUE(cache.Contains(id)) << id;
  EXPECT_EQ(cache.Size(), 3u);
  none.Add("a");
  EXPECT_FALSE(none.Contains("a") || none.Contains(""));

  PacketCache large(std::numeric_limits<int32_t>::max());  // memory follows the adds
  for (int i = 0; i < 1000; ++i) large.Add("id" + std::to_string(i));
  EXPECT_TRUE(large.Contains("id999") && large.Contains(""));
  for (const char* id : {"ID0", "id", "id1000"}) EXPECT_FALSE(large.Contains(id)) << id;

  // Long churn through a small window: every removal must leave the keys
  // still held findable, wherever they were placed.
  PacketCache window(100);
  for (int i = 0; i < 20000; ++i) window.Add("m" + std::to_string(i));
  int held = 0;
  for (int i = 0; i < 20000; ++i) held += window.Contains("m" + std::to_string(i));
  EXPECT_EQ(held, 100);
  EXPECT_TRUE(window.Contains("m19900") && !window.Contains("m19899"));
}

TEST(ResendWindowTest, HoldsConfirmedIdsForTheirSpanWithinTheCap) {
  using Seen = ResendWindow::Seen;
  constexpr int64_t gap = ResendWindow::kConfirmGapMs;
  ResendWindow window(3);
  window.SetSpan(1000);
  EXPECT_EQ(window.Note("a", 0), Seen::First);
  EXPECT_EQ(window.Note("a", gap - 1), Seen::Recent);  // a flooded copy
  EXPECT_EQ(window.Note("a", gap), Seen::Again);       // a resend
  EXPECT_EQ(window.Note("a", gap + 1), Seen::Recent);  // ...and its copy
  EXPECT_EQ(window.Note("A", 300), Seen::First);       // IDs are case-sensitive
  EXPECT_EQ(window.Note("a", 999), Seen::Again);
  EXPECT_EQ(window.Note("a", 1000), Seen::First);  // its span is over
  EXPECT_EQ(window.Size(), 2u);

  // Past the cap the oldest goes early, and that is counted.
  EXPECT_EQ(window.Note("b", 1001), Seen::First);
  EXPECT_EQ(window.Note("c", 1001), Seen::First);
  EXPECT_EQ(window.Cuts(), 1u);
  EXPECT_EQ(window.Note("A", 1001), Seen::First);  // forgotten early
  EXPECT_EQ(window.Note("c", 1500), Seen::Again);
  EXPECT_EQ(window.Note("z", 5000), Seen::First);  // everything else expired
  EXPECT_EQ(window.Size(), 1u);

  ResendWindow off;
  EXPECT_EQ(off.Note("a", 0), Seen::First);
  EXPECT_EQ(off.Note("a", 9999), Seen::First);

  // Growing and wrapping the ring keeps every held ID findable.
  ResendWindow big(1000);
  big.SetSpan(1 << 30);
  for (int i = 0; i < 5000; ++i) big.Note("m" + std::to_string(i), i);
  EXPECT_EQ(big.Cuts(), 4000u);
  int held = 0;
  for (int i = 4999; i >= 0; --i) held += big.Note("m" + std::to_string(i), 1 << 20) == Seen::Again;
  EXPECT_EQ(held, 1000);
}

TEST(DupWindowTest, HoldsIdsForTheirSpanAndGivesTheRoomBackWhenIdle) {
  DupWindow window, off;
  window.SetSpan(800);  // generations of 100 ms
  EXPECT_FALSE(window.Note("a", 0));
  EXPECT_FALSE(window.Note("A", 1));  // IDs are case-sensitive
  EXPECT_TRUE(window.Note("a", 799));
  EXPECT_FALSE(window.Note("a", 900));  // span + one generation at most
  EXPECT_FALSE(off.Note("a", 0) || off.Note("a", 1));

  // Ended generations go whole; an idle owner's Expire shrinks the table
  // to what is left and gives it back once nothing is.
  for (int i = 0; i < 10000; ++i) window.Note("m" + std::to_string(i), 1000);
  const size_t full = window.HeldBytes();
  EXPECT_FALSE(window.Note("late", 1500));
  window.Expire(1899);
  EXPECT_EQ(window.Size(), 10001u);
  window.Expire(1900);
  EXPECT_EQ(window.Size(), 1u);
  EXPECT_LT(window.HeldBytes(), full / 64);
  EXPECT_TRUE(window.Note("late", 2000));
  window.Expire(3000);
  EXPECT_EQ(window.Size(), 0u);
  EXPECT_EQ(window.HeldBytes(), 0u);
  EXPECT_FALSE(window.Note("m5", 3000));
}

TEST(DupWindowTest, LongChurnKeepsHeldIdsAndForgetsOldOnesWithinTheCap) {
  // One generation a millisecond for thousands of them: a slot left from
  // long ago must never read as held, and a held one never go missing.
  DupWindow window;
  window.SetSpan(8);
  auto id = [](int64_t n) { return "m" + std::to_string(n); };
  for (int64_t t = 0; t < 5000; ++t) {
    for (int64_t n = 3 * t; n < 3 * t + 3; ++n) ASSERT_FALSE(window.Note(id(n), t)) << n;
    if (t >= 8) {
      ASSERT_TRUE(window.Note(id(3 * (t - 7)), t)) << t;
    }
    if (t >= 300) {
      ASSERT_FALSE(window.Note(id(3 * (t - 300) + 1), t)) << t;
    }
  }
  EXPECT_EQ(window.Cuts(), 0u);

  // Past the cap the oldest generation goes early, and its IDs are counted.
  DupWindow capped(1000);
  capped.SetSpan(1 << 30);
  for (int n = 0; n < 20000; ++n) ASSERT_FALSE(capped.Note(id(n), n / 100));
  EXPECT_LE(capped.Size(), 1000u);
  EXPECT_GE(capped.Size(), 875u);
  EXPECT_EQ(capped.Cuts(), 20000 - capped.Size());
  const size_t size = capped.Size();
  size_t held = 0;
  for (int n = 19999; n >= 0; --n) held += capped.Note(id(n), 200);
  EXPECT_EQ(held, size);
}

using Entries = std::vector<std::string>;
const std::string kSelf = "S";

TEST(RouteTableTest, LearnsRoutesPromotesKnownOnesAndPicksTheLastHop) {
  RouteTable table(10);
  table.Learn("A,B,", kSelf);
  table.Learn("", kSelf);  // ignored
  EXPECT_EQ(table.Entries(), (Entries{"", "A,B,S,"}));
  for (auto [destination, hop] :
       {std::pair{"A", "B"}, {"B", "B"}, {"C", ""}, {"S", ""}, {"BROADCAST", ""}}) {
    EXPECT_EQ(table.NextHop(destination, kSelf), hop) << destination;
  }

  table.Learn("C,", kSelf);
  table.Learn("D,", kSelf);
  table.Learn("B,", kSelf);  // "B,S," is the tail of the oldest entry: promoted
  EXPECT_EQ(table.Entries(), (Entries{"", "A,B,S,", "D,S,", "C,S,"}));

  // The first entry holding both IDs decides until another is promoted.
  table.Learn("D,X,", kSelf);
  EXPECT_EQ(table.NextHop("D", kSelf), "X");
  table.Promote(3);
  const Entries promoted = {"", "D,S,", "D,X,S,", "A,B,S,", "C,S,"};
  EXPECT_EQ(table.Entries(), promoted);
  EXPECT_EQ(table.NextHop("D", kSelf), "D");
  for (int32_t ignored : {0, 5, -1}) table.Promote(ignored);
  EXPECT_EQ(table.Entries(), promoted);

  // Self stands first here, so the entry is read forward from self.
  table.Learn("S,B,E,", kSelf);
  EXPECT_EQ(table.NextHop("E", kSelf), "B");
  // Read reversed, the hop is the one before self's last occurrence.
  table.Learn("F,S,G,H,", kSelf);
  EXPECT_EQ(table.NextHop("F", kSelf), "H");
}

TEST(RouteTableTest, FullTableDropsOnlyTheOldestAndADisabledOneLearnsNothing) {
  RouteTable table(10), disabled(0);
  for (int i = 0; i < 11; ++i) table.Learn("R" + std::to_string(i) + ",", kSelf);
  EXPECT_EQ(table.Entries().size(), 11u);
  EXPECT_EQ(table.Entries()[1], "R10,S,");
  EXPECT_EQ(table.Entries()[10], "R1,S,");
  disabled.Learn("A,B,", kSelf);
  EXPECT_EQ(disabled.NextHop("A", kSelf), "");
}

TEST(RouteTableTest, IdsMatchOnlyWholeItems) {
  RouteTable table(10);
  table.Learn("B,XA,", kSelf);
  table.Learn("AB,", kSelf);
  EXPECT_EQ(table.NextHop("A", kSelf), "");  // neither inside "XA" nor "AB"
  EXPECT_EQ(table.NextHop("B", kSelf), "XA");

  // "A,S," occurs in "B,XA,S," only from inside an item, so it is new.
  table.Learn("A,", kSelf);
  EXPECT_EQ(table.Entries().size(), 4u);
  EXPECT_EQ(table.NextHop("A", kSelf), "A");

  // Self inside a longer ID is not self; an empty item is no ID.
  RouteTable other(10);
  other.Learn("C,SS,", "T");
  EXPECT_EQ(other.NextHop("C", kSelf), "");
  EXPECT_EQ(other.NextHop("", "T"), "");

  for (auto [route, reversed] :
       {std::pair{"A,B,C,", "C,B,A,"}, {"A,B", "B,A,"}, {"A,,B,", "B,,A,"}, {",", ","}, {"", ""}}) {
    EXPECT_EQ(RouteTable::ReverseRoute(route), reversed);
  }
}

}  // namespace
}  // namespace qel
