// The processes of one loopback measurement and the line protocol that
// drives them, the same for every contender (QEL, plain TCP, ZeroMQ).
//
//   receiver:  "ready port=P [id=I]" once, then per run:
//              "arm N" -> "armed", and "got n=N t=T" when the Nth message
//              arrived (T from NowNs)
//   sender:    "ready ..." once, then per run "send N" -> "start t=T" just
//              before the first message goes out
//   pinger:    "ready ..." once, then "ping K ms=M" -> "rtt n= fail= p50= p99="
//              (ns) after K round trips or M ms, whichever comes first
//   relays and echoing targets only say "ready port=P" and serve.
//
// Anything else a process writes is a failure report ("fail ...").
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "harness.h"

namespace qelbench {

struct Rig {
  std::vector<std::unique_ptr<Child>> processes;  // all killed with the rig
  Child* sender = nullptr;
  Child* receiver = nullptr;
  Child* pinger = nullptr;
  std::string failure;  // set when the rig could not be built

  Child& Add(std::unique_ptr<Child> child) {
    processes.push_back(std::move(child));
    return *processes.back();
  }
};

// How long a process may take to come up and say "ready".
inline constexpr int kReadyTimeoutMs = 10000;

// The line a pinger reports, from its round-trip times.
std::string RttReport(const std::vector<double>& ns, int failures);

// Parses "ping K ms=M": the count and the time budget.
void ParsePing(const std::string& line, int64_t& count, int64_t& budgetMs);

}  // namespace qelbench
