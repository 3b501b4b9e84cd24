#include "core/stats.h"

#include <cmath>
#include <limits>

namespace qel {

std::string_view RefusalName(Refusal reason) {
  switch (reason) {
    case Refusal::Memory: return "memory";
    case Refusal::Connections: return "connections";
    case Refusal::Stall: return "stall";
    case Refusal::DupWindow: return "dup-window";
    case Refusal::RpcCalls: return "rpc";
    case Refusal::Serving: return "serving";
    case Refusal::SearchResults: return "search";
    case Refusal::NodeCache: return "node-cache";
    case Refusal::UserValues: return "users";
    case Refusal::FutureStamp: return "future-stamp";
    case Refusal::KeyMismatch: return "key-mismatch";
    case Refusal::kCount: break;
  }
  return "";
}

namespace {

// Moves acc * factor into rate when it fits 32 bits.
bool Convert(int64_t& acc, int32_t& rate, int64_t factor) {
  int64_t value = acc * factor;
  if (value > std::numeric_limits<int32_t>::max() || value < std::numeric_limits<int32_t>::min()) {
    return false;
  }
  rate = static_cast<int32_t>(value);
  acc = 0;
  return true;
}

int16_t RoundToInt16(double value) {
  double rounded = std::nearbyint(value);
  if (rounded > 32767) return 32767;
  if (rounded < -32768) return -32768;
  return static_cast<int16_t>(rounded);
}

}  // namespace

Stats& TheStats() {
  static Stats* stats = new Stats;
  return *stats;
}

bool Stats::Tick(int32_t intervalMs) {
  if (intervalMs <= 0) return false;
  const int64_t factor = RoundToInt16(1000.0 / intervalMs);
  return Convert(InBytesAcc, InByteSpeed, factor) && Convert(OutBytesAcc, OutByteSpeed, factor) &&
         Convert(InPacketsAcc, InPacketRate, factor) &&
         Convert(OutPacketsAcc, OutPacketRate, factor);
}

void Stats::RecordCompression(int64_t contentLength, int64_t originalLength) {
  if (originalLength <= 0) return;
  double saved = 100.0 - (static_cast<double>(contentLength) / originalLength * 100.0);
  CompressionSum += RoundToInt16(saved);
  CompressionCount += 1;
}

int16_t Stats::AvgCompression() const {
  // The test is on the sum of both counters, as the classic nodes make it.
  if (CompressionSum + CompressionCount < 1 || CompressionCount == 0) return 0;
  return RoundToInt16(static_cast<double>(CompressionSum) / CompressionCount);
}

}  // namespace qel
