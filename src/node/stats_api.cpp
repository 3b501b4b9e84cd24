#include <qel/stats.h>

#include <algorithm>

#include <qel/version.h>

#include "core/stats.h"

namespace qel {
namespace {

const Stats& Figures() {
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

}  // namespace qel
