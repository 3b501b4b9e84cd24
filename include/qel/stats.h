// cQELStats: read-only traffic figures of all nodes in the process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qel/export.h>

namespace qel {

// Rates are per second over the last 500 ms tick of the statistics timer and
// change only on ticks; counts run from the time the library was loaded and
// stop at 2147483647. Read on the event loop's thread: the figures throw
// QelError -2147221500 on another.
class QEL_API cQELStats {
 public:
  int32_t InByteSpeed() const;
  int32_t OutByteSpeed() const;
  int32_t InPacketRate() const;
  int32_t OutPacketRate() const;
  int32_t InPacketCount() const;
  int32_t OutPacketCount() const;
  // The library's version, "major.minor.revision".
  std::string QELVersion() const;
  // Mean percentage saved by compression over all compressed incoming
  // messages; 0 when there were none.
  int16_t AvgCompression() const;
  // Confirmed messages that a node had to forget before their senders
  // stopped resending them (its memory of them is capped); a late resend of
  // one would be delivered again. 0 in normal running.
  int32_t ResendWindowCuts() const;
  // Cancels of file transfers that a node ignored: they named no transfer
  // it serves to the node that sent them (only the asker may cancel).
  int32_t IgnoredCancels() const;
  // What the nodes refused because a peer asked for more than their limits
  // allow, by reason: "memory", "connections", "stall", "dup-window", "rpc",
  // "serving", "search", "node-cache", "users", "future-stamp", "key-mismatch". An unknown
  // reason counts 0.
  static std::vector<std::string> RefusalReasons();
  int64_t Refused(const std::string& reason) const;
};

}  // namespace qel
