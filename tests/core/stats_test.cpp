#include "core/stats.h"

#include <gtest/gtest.h>

namespace qel {
namespace {

TEST(StatsTest, TicksTurnAccumulatorsIntoPerSecondRates) {
  Stats stats;
  stats.InBytesAcc = 300;
  stats.OutBytesAcc = 10;
  stats.InPacketsAcc = 3;
  stats.OutPacketsAcc = 1;
  EXPECT_TRUE(stats.Tick(500));
  EXPECT_EQ(stats.InByteSpeed, 600);
  EXPECT_EQ(stats.OutByteSpeed, 20);
  EXPECT_EQ(stats.InPacketRate, 6);
  EXPECT_EQ(stats.OutPacketRate, 2);
  EXPECT_TRUE(stats.Tick(500));  // the accumulators start again from zero
  EXPECT_EQ(stats.InByteSpeed, 0);
}

TEST(StatsTest, AnOverflowingRateStopsTheTickAndKeepsLaterCounters) {
  Stats stats;
  stats.InBytesAcc = 100;
  stats.OutBytesAcc = 2'000'000'000;
  stats.InPacketsAcc = 4;
  EXPECT_FALSE(stats.Tick(500));
  EXPECT_EQ(stats.InByteSpeed, 200);
  EXPECT_EQ(stats.OutBytesAcc, 2'000'000'000);
  EXPECT_EQ(stats.InPacketsAcc, 4);  // after the fault: still accumulating
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
