// Traffic counters of the whole process and the rates computed from them.
#pragma once

#include <cstdint>

namespace qel {

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

}  // namespace qel
