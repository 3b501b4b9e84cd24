// Many nodes in one process, joined in a random graph: how a broadcast
// spreads, what directed messages cost, and what an idle node holds.
#pragma once

#include <cstdint>
#include <string>

namespace qelbench {

// What one process of `nodes` nodes measured.
struct ScaleResult {
  int32_t nodes = 0;
  int32_t diameter = 0;
  int64_t connectNs = 0;   // building the graph, announcements included
  double broadcastNs = 0;  // median over the runs, to the last node reached
  double broadcastMinNs = 0;
  double broadcastMaxNs = 0;
  int32_t reached = 0;    // nodes the slowest run reached, the sender excluded
  int64_t copies = 0;     // messages a broadcast put on links, duplicates included
  int64_t transmits = 0;  // sends counted by the statistics (one per node that passed it on)
  int32_t directed = 0;
  int32_t arrived = 0;
  int64_t directedNs = 0;
  int64_t directedCopies = 0;  // per directed message
  int64_t rssPerNode = 0;      // bytes of anonymous resident memory
  int64_t heapPerNode = 0;     // bytes the allocator handed out and not got back
};

// Builds `nodes` nodes in this process and measures them; broadcasts repeat
// `runs` times. Throws std::runtime_error saying what went wrong. Raises the
// descriptor limit: run it in a process of its own.
ScaleResult MeasureScale(int32_t nodes, int runs);

// Prints "scale N nodes: ..." for `nodes` nodes measured in a child process
// of its own; verbose adds the diameter, the time to build the graph and the
// heap per node on stderr.
void ScaleFigure(int32_t nodes, int runs, bool verbose);

}  // namespace qelbench
