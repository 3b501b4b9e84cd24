#include "core/stats.h"

#include <gtest/gtest.h>

namespace qel {
namespace {

// A tick turns each accumulator into a per-second rate and starts it again;
// a rate that overflows stops the tick, and later counters keep accumulating.
TEST(StatsTest, TicksTurnAccumulatorsIntoRatesUntilOneOverflows) {
  Stats stats;
  stats.InBytesAcc = 300;
  stats.OutPacketsAcc = 1;
  EXPECT_TRUE(stats.Tick(500));
  EXPECT_EQ(stats.InByteSpeed, 600);
  EXPECT_EQ(stats.OutPacketRate, 2);
  stats.InBytesAcc += 100;  // started again from zero
  stats.OutBytesAcc = 2'000'000'000;
  stats.InPacketsAcc = 4;
  EXPECT_FALSE(stats.Tick(500));
  EXPECT_EQ(stats.InByteSpeed, 200);
  EXPECT_EQ(stats.InPacketsAcc, 4);
  stats.OutBytesAcc = 5;
  EXPECT_TRUE(stats.Tick(500));
  EXPECT_EQ(stats.InPacketRate, 8);
}

TEST(StatsTest, AverageCompressionRoundsEachMessage) {
  Stats stats;
  EXPECT_EQ(stats.AvgCompression(), 0);
  stats.RecordCompression(25, 100);  // saved 75
  stats.RecordCompression(1, 3);     // saved 66.7 -> 67
  EXPECT_EQ(stats.AvgCompression(), 71);
  stats.RecordCompression(150, 100);  // grew: saved -50
  EXPECT_EQ(stats.AvgCompression(), 31);
}

}  // namespace
}  // namespace qel
