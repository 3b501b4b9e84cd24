#include "routing/route_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qel {
namespace {

const std::string kSelf = "S";

TEST(RouteTableTest, LearnedRouteEndsWithSelfAndLeadsBackThroughTheLastHop) {
  RouteTable table(10);
  table.Learn("A,B,", kSelf);
  EXPECT_EQ(table.Entries(), (std::vector<std::string>{"", "A,B,S,"}));
  EXPECT_EQ(table.NextHop("A", kSelf), "B");
  EXPECT_EQ(table.NextHop("B", kSelf), "B");
  EXPECT_EQ(table.NextHop("C", kSelf), "");
  EXPECT_EQ(table.NextHop(kSelf, kSelf), "");
  EXPECT_EQ(table.NextHop("BROADCAST", kSelf), "");

  // Self stands first here, so the entry is read forward from self's first
  // occurrence.
  table.Learn("S,B,C,", kSelf);
  EXPECT_EQ(table.NextHop("C", kSelf), "B");
}

TEST(RouteTableTest, KnownRunIsPromotedInsteadOfStored) {
  RouteTable table(10);
  table.Learn("A,B,", kSelf);
  table.Learn("C,", kSelf);
  table.Learn("D,", kSelf);
  table.Learn("B,", kSelf);  // "B,S," is the tail of the oldest entry
  EXPECT_EQ(table.Entries(), (std::vector<std::string>{"", "A,B,S,", "D,S,", "C,S,"}));

  table.Learn("", kSelf);
  EXPECT_EQ(table.Entries().size(), 4u);
}

TEST(RouteTableTest, NewRouteIntoFullTableDropsOnlyTheOldest) {
  RouteTable table(10);
  std::vector<std::string> expected{""};
  for (int i = 0; i < 11; ++i) {
    const std::string route = "R" + std::to_string(i) + ",";
    table.Learn(route, kSelf);
    expected.insert(expected.begin() + 1, route + "S,");
  }
  expected.pop_back();
  EXPECT_EQ(table.Entries(), expected);
  EXPECT_EQ(table.Entries()[10], "R1,S,");
}

TEST(RouteTableTest, FirstEntryHoldingBothIdsDecidesUntilAnotherIsPromoted) {
  RouteTable table(10);
  table.Learn("D,X,", kSelf);
  table.Learn("D,Y,", kSelf);
  EXPECT_EQ(table.NextHop("D", kSelf), "Y");
  table.Promote(2);
  EXPECT_EQ(table.Entries(), (std::vector<std::string>{"", "D,X,S,", "D,Y,S,"}));
  EXPECT_EQ(table.NextHop("D", kSelf), "X");

  table.Promote(0);
  table.Promote(3);
  table.Promote(-1);
  EXPECT_EQ(table.Entries(), (std::vector<std::string>{"", "D,X,S,", "D,Y,S,"}));
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

  // Self inside a longer ID is not self.
  RouteTable other(10);
  other.Learn("C,SS,", "T");
  EXPECT_EQ(other.NextHop("C", kSelf), "");
  EXPECT_EQ(other.NextHop("C,SS", "T"), "");
  other.Learn(",C,", "T");  // an empty item is no ID
  EXPECT_EQ(other.NextHop("", "T"), "");
}

TEST(RouteTableTest, DisabledTableLearnsAndFindsNothing) {
  for (int32_t maxRoutes : {0, -5}) {
    RouteTable table(maxRoutes);
    EXPECT_FALSE(table.Enabled());
    table.Learn("A,B,", kSelf);
    EXPECT_EQ(table.Entries(), std::vector<std::string>{""});
    EXPECT_EQ(table.NextHop("A", kSelf), "");
  }
  EXPECT_TRUE(RouteTable(1).Enabled());
}

TEST(RouteTableTest, ReverseRouteKeepsItemsAndEndsWithComma) {
  EXPECT_EQ(RouteTable::ReverseRoute("A,B,C,"), "C,B,A,");
  EXPECT_EQ(RouteTable::ReverseRoute("A,B"), "B,A,");
  EXPECT_EQ(RouteTable::ReverseRoute("A,,B,"), "B,,A,");
  EXPECT_EQ(RouteTable::ReverseRoute(","), ",");
  EXPECT_EQ(RouteTable::ReverseRoute(""), "");
}

// A naive substring search over these would take billions of steps.
TEST(RouteTableTest, LongRepetitiveRoutesCostLinearTime) {
  RouteTable table(10);
  const std::string longRun(200000, 'a');
  table.Learn(longRun, kSelf);
  table.Learn(longRun.substr(0, 100000), kSelf);  // matches only mid-item
  table.Learn(longRun.substr(0, 100000) + ",", kSelf);
  EXPECT_EQ(table.Entries().size(), 4u);
  table.Learn(std::string(300000, ',') + std::string(1, '\0'), kSelf);
  EXPECT_EQ(table.NextHop(std::string(100000, 'a'), kSelf), std::string(100000, 'a'));
}

}  // namespace
}  // namespace qel
