// Which links to close when the bytes kept for them pass the node's memory
// budget. It sees numbers only, so the choice is tested without sockets; the
// link table gathers the numbers and does the closing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace qel {

class MemoryBudget {
 public:
  // What one link holds, as the budget sees it.
  struct Holding {
    int32_t link = 0;     // the caller's name for it, given back in a Close
    size_t bytes = 0;     // waiting to be sent, and received but not yet processed
    bool counted = true;  // false once it is closed or already condemned
  };
  // A link to close, with the figures its closing message gives.
  struct Close {
    int32_t link = 0;
    size_t held = 0;   // what it held, the incoming bytes included if it was growing
    size_t total = 0;  // what the links still counted held then, incoming bytes included
  };

  // budget is the bytes all links may hold together (below 0 counts as 0);
  // each of maxConnections links (at least 1) has an equal share of it.
  MemoryBudget(int64_t budget, int32_t maxConnections);

  // The budget, as the closing message gives it.
  int64_t Limit() const { return static_cast<int64_t>(budget_); }
  // Whether a link holding `bytes` is within its share. Links within their
  // share cannot pass the budget together, so a caller checks this first and
  // adds up the others only when it fails.
  bool WithinShare(size_t bytes) const { return bytes <= share_; }
  // The links to close, in order, once link `growing` is to take `incoming`
  // more bytes: nothing while growing stays within its share; otherwise, while
  // the counted links hold more than the budget, the one holding the most
  // (the first listed on a tie; never one holding nothing) closes and no
  // longer counts. The incoming bytes count with growing, and go with it.
  std::vector<Close> ToClose(std::span<const Holding> links, int32_t growing,
                             size_t incoming) const;

 private:
  size_t budget_;
  size_t share_;
};

}  // namespace qel
