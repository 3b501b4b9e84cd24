#include "routing/packet_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <limits>
#include <random>
#include <string>

namespace qel {
namespace {

TEST(PacketCacheTest, OldestOfFiftyFallsOutAndIsAcceptedAgain) {
  PacketCache cache(50);
  for (int i = 0; i <= 50; ++i) cache.Add("id" + std::to_string(i));
  EXPECT_EQ(cache.Size(), 50u);
  EXPECT_FALSE(cache.Contains("id0"));
  EXPECT_TRUE(cache.Contains("id1"));
  EXPECT_TRUE(cache.Contains("id50"));

  cache.Add("id0");
  EXPECT_TRUE(cache.Contains("id0"));
  EXPECT_FALSE(cache.Contains("id1"));
}

TEST(PacketCacheTest, MatchIsExactAndCaseSensitive) {
  PacketCache cache(5);
  cache.Add("abc");
  EXPECT_TRUE(cache.Contains("abc"));
  EXPECT_FALSE(cache.Contains("ABC"));
  EXPECT_FALSE(cache.Contains("ab"));
  EXPECT_FALSE(cache.Contains(""));
}

TEST(PacketCacheTest, DuplicateStaysUntilItsLastCopyFallsOut) {
  PacketCache cache(3);
  cache.Add("a");
  cache.Add("a");
  cache.Add("b");
  cache.Add("c");  // evicts the first "a"
  EXPECT_TRUE(cache.Contains("a"));
  cache.Add("d");  // evicts the second
  EXPECT_FALSE(cache.Contains("a"));
  EXPECT_EQ(cache.Size(), 3u);

  PacketCache one(1);
  one.Add("x");
  one.Add("x");
  EXPECT_TRUE(one.Contains("x"));
}

TEST(PacketCacheTest, NonPositiveCapacityHoldsNothing) {
  for (int32_t capacity : {0, -1}) {
    PacketCache cache(capacity);
    cache.Add("a");
    EXPECT_FALSE(cache.Contains("a"));
    EXPECT_EQ(cache.Size(), 0u);
    EXPECT_EQ(cache.Capacity(), 0);
  }
}

TEST(PacketCacheTest, HugeCapacityGrowsOnlyWithAdds) {
  PacketCache cache(std::numeric_limits<int32_t>::max());
  for (int i = 0; i < 1000; ++i) cache.Add(std::to_string(i));
  EXPECT_EQ(cache.Size(), 1000u);
  EXPECT_TRUE(cache.Contains("0"));
}

TEST(PacketCacheTest, MatchesDequeModelOnRandomTraffic) {
  const uint32_t seed = 20240611;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  for (int32_t capacity : {1, 2, 3, 7, 50}) {
    PacketCache cache(capacity);
    std::deque<std::string> model;
    std::uniform_int_distribution<int> pick(0, capacity * 2);
    for (int step = 0; step < 5000; ++step) {
      const std::string id = "m" + std::to_string(pick(rng));
      if (rng() % 2) {
        cache.Add(id);
        model.push_back(id);
        if (model.size() > static_cast<size_t>(capacity)) model.pop_front();
      }
      ASSERT_EQ(cache.Contains(id), std::find(model.begin(), model.end(), id) != model.end())
          << "capacity " << capacity << " step " << step << " id " << id;
      ASSERT_EQ(cache.Size(), model.size());
    }
  }
}

}  // namespace
}  // namespace qel
