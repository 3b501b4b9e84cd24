// A ping a node waits on: asked, sent, answered or given up.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "net/event_loop.h"

namespace qel {

// How a ping ended.
struct PingResult {
  // The round trip, or negative when no answer came in time.
  std::chrono::microseconds rtt{-1};
  // Whether the node was known or described itself in time, so a PING went.
  bool resolved = false;
};

struct PingWait {
  std::string nodeID;
  // Empty while the node is asked who it is: the PING goes when its next INFO
  // comes.
  std::string reqID;
  // When the PING went.
  std::chrono::steady_clock::time_point start;
  std::function<void(PingResult)> done;
  // Ends the wait with -1; destroying the wait cancels it.
  std::unique_ptr<Timer> deadline;
};

}  // namespace qel
