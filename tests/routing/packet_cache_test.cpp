#include "routing/packet_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <random>

namespace qel {
namespace {

// The ring wraps, duplicates stay until their last copy falls out and the
// empty ID fills unfilled positions: checked against the classic window.
TEST(PacketCacheTest, MatchesAWindowOfTheLastCapacityIds) {
  std::mt19937 rng(20240611);
  for (int32_t capacity : {0, 1, 2, 3, 7, 50}) {
    PacketCache cache(capacity);
    std::deque<std::string> window(static_cast<size_t>(capacity));
    size_t added = 0;
    for (int step = 0; step < 3000; ++step) {
      const int n = static_cast<int>(rng() % static_cast<uint32_t>(capacity * 2 + 1));
      const std::string id = n == 0 ? "" : "m" + std::to_string(n);
      if (rng() % 2) {
        cache.Add(id);
        window.push_back(id);
        window.pop_front();
        ++added;
      }
      ASSERT_EQ(cache.Contains(id), std::find(window.begin(), window.end(), id) != window.end())
          << "capacity " << capacity << " step " << step << " id " << id;
      ASSERT_EQ(cache.Size(), std::min(added, window.size()));
    }
  }
  PacketCache cache(std::numeric_limits<int32_t>::max());  // memory follows the adds
  for (int i = 0; i < 1000; ++i) cache.Add("id" + std::to_string(i));
  EXPECT_TRUE(cache.Contains("id999"));
  for (const char* id : {"ID0", "id", "id1000"}) EXPECT_FALSE(cache.Contains(id)) << id;
}

}  // namespace
}  // namespace qel
