#include "net/memory_budget.h"

#include <algorithm>

namespace qel {

MemoryBudget::MemoryBudget(int64_t budget, int32_t maxConnections)
    : budget_(static_cast<size_t>(std::max<int64_t>(budget, 0))),
      share_(budget_ / static_cast<size_t>(std::max(maxConnections, 1))) {}

std::vector<MemoryBudget::Close> MemoryBudget::ToClose(std::span<const Holding> links,
                                                       int32_t growing, size_t incoming) const {
  std::vector<Close> closes;
  const auto grower = std::find_if(links.begin(), links.end(),
                                   [growing](const Holding& h) { return h.link == growing; });
  if (WithinShare((grower == links.end() ? 0 : grower->bytes) + incoming)) return closes;
  std::vector<bool> condemned(links.size(), false);
  for (;;) {
    Close largest;
    size_t at = 0;
    for (size_t i = 0; i < links.size(); ++i) {
      if (!links[i].counted || condemned[i]) continue;
      const size_t held = links[i].bytes + (links[i].link == growing ? incoming : 0);
      // The grower's incoming bytes count only while it does: once it is
      // condemned they are refused, and must not close anyone else.
      largest.total += held;
      if (held > largest.held) {
        largest = {.link = links[i].link, .held = held, .total = largest.total};
        at = i;
      }
    }
    if (largest.total <= budget_ || largest.held == 0) return closes;
    condemned[at] = true;
    closes.push_back(largest);
  }
}

}  // namespace qel
