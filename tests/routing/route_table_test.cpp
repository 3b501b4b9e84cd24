#include "routing/route_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qel {
namespace {

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
  EXPECT_FALSE(disabled.Enabled());
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
