// A ping a node waits on: asked, sent, answered or given up.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "net/event_loop.h"

namespace qel {

// How a ping ended.
struct PingResult {
  // The round trip in ms, or -1 when no answer came in time.
  int32_t ms = -1;
  // Whether the node was known or described itself in time, so a PING went.
  bool resolved = false;
};

struct PingWait {
  std::string nodeID;
  // Empty while the node is asked who it is: the PING goes when its next INFO
  // comes.
  std::string reqID;
  // When the PING went (TickCount).
  int64_t start = 0;
  std::function<void(PingResult)> done;
  // Ends the wait with -1; destroying the wait cancels it.
  std::unique_ptr<Timer> deadline;
};

}  // namespace qel
