#include <qel/stats.h>

#include <algorithm>

#include <qel/version.h>

#include "core/stats.h"
#include "net/event_loop.h"

namespace qel {
namespace {

// Every figure passes here: the counters belong to the loop's thread.
const Stats& Figures() {
  if (!OnLoopThread()) ThrowWrongThread("cQELStats");
  return TheStats();
}

int32_t Saturate(int64_t count) {
  return static_cast<int32_t>(std::min<int64_t>(count, INT32_MAX));
}

}  // namespace

int32_t cQELStats::InByteSpeed() const {
  return Figures().InByteSpeed;
}
int32_t cQELStats::OutByteSpeed() const {
  return Figures().OutByteSpeed;
}
int32_t cQELStats::InPacketRate() const {
  return Figures().InPacketRate;
}
int32_t cQELStats::OutPacketRate() const {
  return Figures().OutPacketRate;
}
int32_t cQELStats::InPacketCount() const {
  return Saturate(Figures().InPacketCount);
}
int32_t cQELStats::OutPacketCount() const {
  return Saturate(Figures().OutPacketCount);
}
std::string cQELStats::QELVersion() const {
  return QEL_VERSION_STRING;
}
int16_t cQELStats::AvgCompression() const {
  return Figures().AvgCompression();
}
int32_t cQELStats::ResendWindowCuts() const {
  return Saturate(Figures().ResendWindowCuts);
}

int32_t cQELStats::IgnoredCancels() const {
  return Saturate(Figures().IgnoredCancels);
}

std::vector<std::string> cQELStats::RefusalReasons() {
  std::vector<std::string> names;
  for (size_t i = 0; i < static_cast<size_t>(Refusal::kCount); ++i) {
    names.emplace_back(RefusalName(static_cast<Refusal>(i)));
  }
  return names;
}

int64_t cQELStats::Refused(const std::string& reason) const {
  const Stats& figures = Figures();
  for (size_t i = 0; i < static_cast<size_t>(Refusal::kCount); ++i) {
    if (RefusalName(static_cast<Refusal>(i)) == reason) return figures.Refusals[i];
  }
  return 0;
}

}  // namespace qel
