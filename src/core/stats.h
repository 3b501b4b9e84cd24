// Traffic counters of the whole process and the rates computed from them.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace qel {

// What a node refused because a peer (or its host) asked for more than the
// node's limits allow. The names are part of the public statistics.
enum class Refusal : uint8_t {
  Memory,        // a connection held more than its share of memoryBudget
  Connections,   // maxConnections were open
  Stall,         // a sender stopped in the middle of a message
  DupWindow,     // the duplicate window's cap pushed IDs out early
  RpcCalls,      // RPC calls past the pending caps
  Serving,       // file transfers past the serving caps
  SearchResults, // search answers past their cap
  NodeCache,     // node entries or values past their caps
  UserValues,    // user records too large or too many
  FutureStamp,   // user records stamped too far ahead
  KeyMismatch,   // a node ID announced with another key than the one it is bound to
  kCount
};
std::string_view RefusalName(Refusal reason);

struct Stats {
  // Accumulated between ticks. Wider than the 32-bit figures the host reads,
  // so a burst between ticks cannot wrap; the tick reports what does not fit.
  int64_t InBytesAcc = 0;
  int64_t OutBytesAcc = 0;
  int64_t InPacketsAcc = 0;
  int64_t OutPacketsAcc = 0;

  int32_t InByteSpeed = 0;
  int32_t OutByteSpeed = 0;
  int32_t InPacketRate = 0;
  int32_t OutPacketRate = 0;

  int64_t InPacketCount = 0;
  int64_t OutPacketCount = 0;
  int64_t CompressionSum = 0;
  int64_t CompressionCount = 0;
  // Confirmed messages whose IDs the resend window's cap pushed out early,
  // so that a late resend of them would be delivered again.
  int64_t ResendWindowCuts = 0;
  // Cancels (FILE with FS_Canceled) that named no transfer served to their
  // sender: another node's transfer, an unknown or finished one.
  int64_t IgnoredCancels = 0;
  // GETFILEINFO hash requests answered without a hash because too many
  // hashes were waiting already.
  int64_t FileInfosWithoutHash = 0;
  // Refusals by reason (see Refusal).
  std::array<int64_t, static_cast<size_t>(Refusal::kCount)> Refusals{};

  void Refused(Refusal reason) { ++Refusals[static_cast<size_t>(reason)]; }

  // Turns the accumulators into per-second rates for a tick of intervalMs.
  // Returns false when a rate overflowed 32 bits: the rates before it are
  // set, it and the ones after keep accumulating until a later tick.
  bool Tick(int32_t intervalMs);

  // Notes a compressed incoming message of contentLength bytes that was
  // originalLength bytes before compression.
  void RecordCompression(int64_t contentLength, int64_t originalLength);

  int16_t AvgCompression() const;
};

// The counters of the process, shared by every node.
Stats& TheStats();

// What a link carried: bytes as they went over the wire, whole messages.
struct LinkTraffic {
  int64_t MessagesIn = 0;
  int64_t MessagesOut = 0;
  int64_t BytesIn = 0;
  int64_t BytesOut = 0;

  LinkTraffic& operator+=(const LinkTraffic& other) {
    MessagesIn += other.MessagesIn;
    MessagesOut += other.MessagesOut;
    BytesIn += other.BytesIn;
    BytesOut += other.BytesOut;
    return *this;
  }
};

// The counters one node keeps beside the process's, so that several nodes
// in one process can each show their own.
struct NodeCounters {
  // What the node's links carried before their elements went to new links;
  // the node's links still hold the rest.
  LinkTraffic RetiredLinks;
  // Messages passed on to other nodes, and copies dropped as seen before.
  int64_t Relayed = 0;
  int64_t DuplicatesDropped = 0;
  std::array<int64_t, static_cast<size_t>(Refusal::kCount)> Refusals{};

  // Counts a refusal for this node and for the process.
  void Refused(Refusal reason) {
    ++Refusals[static_cast<size_t>(reason)];
    TheStats().Refused(reason);
  }
};

}  // namespace qel
