#include "net/memory_budget.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace qel {
namespace {

using Closes = std::vector<std::tuple<int32_t, size_t, size_t>>;  // link, held, total

Closes Choose(int64_t budget, int32_t maxConnections,
              const std::vector<MemoryBudget::Holding>& links, int32_t growing, size_t incoming) {
  Closes closes;
  for (const auto& c : MemoryBudget(budget, maxConnections).ToClose(links, growing, incoming)) {
    closes.emplace_back(c.link, c.held, c.total);
  }
  return closes;
}

// A budget of 1000 over 10 links: a share of 100 each. Link 4 is the one
// growing unless said otherwise.
TEST(MemoryBudgetTest, TheLargestHoldersCloseUntilTheRestFit) {
  // Within its share (incoming included) the grower closes no one, even when
  // the others are over: they are dealt with when they grow.
  EXPECT_EQ(Choose(1000, 10, {{1, 2000}, {4, 60}}, 4, 40), Closes{});
  // Past its share but the total within the budget.
  EXPECT_EQ(Choose(1000, 10, {{1, 300}, {2, 300}, {4, 150}}, 4, 0), Closes{});
  // Past the budget: the largest go, one by one, each message giving what
  // was still counted when it went.
  EXPECT_EQ(Choose(1000, 10, {{1, 400}, {2, 600}, {3, 500}, {4, 50}}, 4, 100),
            (Closes{{2, 600, 1650}, {3, 500, 1050}}));
  // The grower counts with what it is about to take.
  EXPECT_EQ(Choose(1000, 10, {{1, 600}, {4, 350}}, 4, 300), (Closes{{4, 650, 1250}}));
  // Once the grower goes, what it was about to take is refused and counts no
  // more: the others, within the budget without it, stay.
  EXPECT_EQ(Choose(1000, 10, {{1, 300}, {2, 300}, {4, 100}}, 4, 500), (Closes{{4, 600, 1200}}));
  // On a tie the first listed goes.
  EXPECT_EQ(Choose(1000, 10, {{1, 500}, {2, 500}, {4, 200}}, 4, 0), (Closes{{1, 500, 1200}}));
  // Links closed or already condemned neither count nor close.
  EXPECT_EQ(Choose(1000, 10, {{1, 5000, false}, {2, 400}, {4, 150}}, 4, 0), Closes{});
  // No budget: everyone holding something goes, largest first; a link holding
  // nothing stays, and with nothing held at all nothing happens.
  for (int64_t none : {int64_t{0}, int64_t{-5}}) {
    EXPECT_EQ(Choose(none, 0, {{1, 10}, {2, 0}, {4, 5}}, 4, 0), (Closes{{1, 10, 15}, {4, 5, 5}}));
    EXPECT_EQ(Choose(none, 0, {{1, 0}, {4, 0}}, 4, 0), Closes{});
  }
}

}  // namespace
}  // namespace qel
