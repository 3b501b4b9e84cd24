// Which GETs a node serves now and which wait their turn. A running
// transfer holds a descriptor and, while its link drains, a piece or two; a
// waiting one holds only its request, so the caps on running ones bound
// descriptors and the queue's caps bound what the requests hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <qel/types.h>

#include "net/link_id.h"

namespace qel {

// Transfers served at once to one asker, and by one node in all. The node's
// cap bounds its descriptors: with one connection per asker, a node serving
// its most holds at most this many more than it has connections. One asker
// gains nothing from more at once: they share its link.
inline constexpr size_t kServingPerAsker = 8;
inline constexpr size_t kServingPerNode = 32;
// Transfers that may wait, for the node and for one asker (so one asker
// cannot take every place); past either, or past the queue's bytes (a share
// of memoryBudget, see OnGet), a GET is refused.
inline constexpr size_t kQueuedPerNode = 4096;
inline constexpr size_t kQueuedPerAsker = 1024;

// A GET that waits: what it takes to start it, and nothing opened.
struct QueuedGet {
  std::string asker, reqID, resource;
  typQELRange range;  // isEmpty: the whole file
  size_t packet = 0;
  std::shared_ptr<bool> cancelled;
  // The link the GET came on (or the route to its asker then), if any.
  LinkId link;

  // What it holds, counted against the queue's bytes.
  size_t Bytes() const;
};

class ServingQueue {
 public:
  enum class Turn { Now, Later, Refused };

  // A GET from get.asker: Now when it may start at once (counted as
  // running: call Ended when it ends), Later when it was queued (taken
  // over), Refused when the queue is full or its bytes would pass maxBytes.
  Turn Offer(QueuedGet& get, size_t maxBytes);
  // A running transfer of asker ended, however.
  void Ended(const std::string& asker);
  // The first waiting GET whose asker is below its cap, taken out and
  // counted as running, when the node is below its own; cancelled ones
  // found on the way (all of them, when none can start) are taken out and
  // added to dropped.
  std::optional<QueuedGet> Next(std::vector<QueuedGet>& dropped);

  size_t Running() const { return running_; }
  size_t Waiting() const { return queue_.size(); }

 private:
  struct Counts {
    size_t running = 0, waiting = 0;
  };
  void Forget(const std::string& asker);

  std::deque<QueuedGet> queue_;
  size_t queuedBytes_ = 0;
  size_t running_ = 0;
  std::unordered_map<std::string, Counts> askers_;
};

}  // namespace qel
