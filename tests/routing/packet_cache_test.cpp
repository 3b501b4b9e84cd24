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

TEST(PacketCacheTest, MatchIsExactAndNoCapacityHoldsNothing) {
  PacketCache cache(std::numeric_limits<int32_t>::max()), none(0);
  for (int i = 0; i < 1000; ++i) cache.Add("id" + std::to_string(i));
  EXPECT_EQ(cache.Size(), 1000u);  // grows only with adds
  EXPECT_TRUE(cache.Contains("id999"));
  for (const char* id : {"ID0", "id", "id1000"}) EXPECT_FALSE(cache.Contains(id)) << id;
  none.Add("a");
  EXPECT_FALSE(none.Contains("a"));
}

// Covers eviction of the oldest, re-adding an evicted ID and duplicates,
// which stay until their last copy falls out. The model is the classic
// window whose unfilled positions hold the empty ID.
TEST(PacketCacheTest, MatchesDequeModelOnRandomTraffic) {
  const uint32_t seed = 20240611;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  for (int32_t capacity : {1, 2, 3, 7, 50}) {
    PacketCache cache(capacity);
    std::deque<std::string> model(static_cast<size_t>(capacity));
    size_t added = 0;
    std::uniform_int_distribution<int> pick(0, capacity * 2);
    for (int step = 0; step < 3000; ++step) {
      const int n = pick(rng);
      const std::string id = n == 0 ? "" : "m" + std::to_string(n);
      if (rng() % 2) {
        cache.Add(id);
        ++added;
        model.push_back(id);
        model.pop_front();
      }
      ASSERT_EQ(cache.Contains(id), std::find(model.begin(), model.end(), id) != model.end())
          << "capacity " << capacity << " step " << step << " id " << id;
      ASSERT_EQ(cache.Size(), std::min(added, model.size()));
    }
  }
}

}  // namespace
}  // namespace qel
