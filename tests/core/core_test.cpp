// The small pieces under everything: the debug log, identifiers, statistics
// and the variant values settings and fields are read as.
#include <gtest/gtest.h>

#include <array>
#include <regex>
#include <set>

#include <qel/variant.h>

#include "../support/error_text.h"
#include "core/debug_log.h"
#include "core/log.h"
#include "core/new_id.h"
#include "core/stats.h"

namespace qel::test {
namespace {

TEST(DebugLogTest, AnOversizeLineIsCutAndOlderLinesGiveWay) {
  DebugLog log;
  log.EnableForTest();
  log.Write("old line");
  testing::internal::CaptureStderr();
  log.Write(std::string(DebugLog::kLimit * 2, 'x'));
  EXPECT_LE(testing::internal::GetCapturedStderr().size(), DebugLog::kLimit);
  EXPECT_LE(log.Text().size(), DebugLog::kLimit);
  EXPECT_TRUE(log.Text().starts_with("xxx"));

  testing::internal::CaptureStderr();
  for (int i = 0; i < 100; ++i) log.Write(std::string(999, static_cast<char>('a' + i % 26)));
  testing::internal::GetCapturedStderr();
  EXPECT_LE(log.Text().size(), DebugLog::kLimit);
  EXPECT_TRUE(log.Text().ends_with(std::string(999, 'v') + "\r\n"));
  EXPECT_EQ(log.Text().find(std::string(1000, 'x')), std::string::npos);
}

TEST(LogTest, QelLogNamesALevelInAnyCaseAndAnythingElseLeavesLoggingOff) {
  EXPECT_EQ(LevelFromEnvironment("DeBuG").level, LogLevel::Debug);
  EXPECT_EQ(LevelFromEnvironment("trace").level, LogLevel::Trace);
  for (const char* unset : {static_cast<const char*>(nullptr), ""}) {
    const EnvLogLevel asked = LevelFromEnvironment(unset);
    EXPECT_EQ(asked.level, LogLevel::Off);
    EXPECT_TRUE(asked.warning.empty());
  }
  // Near misses and numbers must not turn on some level by accident.
  for (const char* bad : {"debu", "debugx", "info ", "3", "verbose", "\x7f\xff"}) {
    const EnvLogLevel asked = LevelFromEnvironment(bad);
    EXPECT_EQ(asked.level, LogLevel::Off) << bad;
    EXPECT_NE(asked.warning.find("logging stays off"), std::string::npos) << bad;
  }
}

TEST(NewIdTest, DrawsAreUniqueVersion4Guids) {
  std::set<std::string> seen;
  for (int i = 0; i < 20000; ++i) {
    std::string id = NewID();
    ASSERT_EQ(id.find_first_not_of("0123456789ABCDEF"), std::string::npos) << id;
    ASSERT_EQ(id[12], '4') << id;
    ASSERT_TRUE(id.size() >= 24 && id.size() <= 32) << id;  // bytes 10 to 15 written short
    seen.insert(std::move(id));
  }
  EXPECT_EQ(seen.size(), 20000u);
}

TEST(NewIdTest, PadsDigitsButNotLoneLetters) {
  std::array<uint8_t, 16> guid = {0x00, 0x0A, 0x0B, 0x0C, 0x00, 0x01, 0x40, 0x02,
                                  0x07, 0x0C, 0x10, 0xFF, 0x00, 0x0F, 0xA0, 0x09};
  // In Data4 a lone letter loses its padding (0C -> C), a lone digit keeps it.
  EXPECT_EQ(FormatID(guid), "000A0B0C0001400207C10FF00FA009");
  std::array<uint8_t, 16> letters{};
  for (int i = 8; i < 16; ++i) letters[i] = 0x0C;
  EXPECT_EQ(FormatID(letters), "0000000000000000CCCCCCCC");
}

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

const std::string kMismatch = "13 Variant: Type mismatch", kOverflow = "6 Variant: Overflow";

TEST(VariantTest, WritesAndReadsTextAsTheSettingsStoreDoes) {
  const Variant values[] = {Variant(-2147483648LL), Variant(true), Variant(1.5), Variant(1e20)};
  const char* written[] = {"-2147483648", "True", "1.5", "1E+20"};
  for (size_t i = 0; i < std::size(values); ++i) EXPECT_EQ(values[i].toString(), written[i]);
  EXPECT_EQ(Variant(std::string("a\0b", 3)).toString(), std::string("a\0b", 3));
  for (const char* yes : {"TRUE", "-1"}) EXPECT_TRUE(Variant(yes).toBool()) << yes;
  EXPECT_FALSE(Variant(" 0 ").toBool());
  // Hex and octal, banker's rounding, exponents and True as -1.
  const char* texts[] = {" 42 ", "&H1F", "&o17", "2.5", "3.5", "1e3", "True", "2147483647"};
  const int32_t numbers[] = {42, 31, 15, 2, 4, 1000, -1, 2147483647};
  for (size_t i = 0; i < std::size(texts); ++i) {
    EXPECT_EQ(Variant(texts[i]).toInt32(), numbers[i]) << texts[i];
  }
}

TEST(VariantTest, FailedConversionsRaiseTheClassicNumbers) {
  for (const char* bad : {"", "abc", "1x", "inf", "nan", "0x10", "&H", "&Hzz", "yes"}) {
    EXPECT_EQ(ErrorText([&] { Variant(bad).toInt32(); }), kMismatch) << bad;
    EXPECT_EQ(ErrorText([&] { Variant(bad).toBool(); }), kMismatch) << bad;
  }
  for (const char* big : {"2147483648", "-2147483649"}) {
    EXPECT_EQ(ErrorText([&] { Variant(big).toInt32(); }), kOverflow) << big;
  }
  EXPECT_EQ(ErrorText([] { Variant("1e300").toInt64(); }), kOverflow);
  EXPECT_EQ(ErrorText([] { Variant(std::numeric_limits<uint64_t>::max()); }), kOverflow);
}

TEST(VariantTest, DatesRoundTripThroughText) {
  Variant now = Variant::Now();
  const std::string text = now.toString();
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << text;
  EXPECT_EQ(Variant(text).toDate(), now.toDate());
  EXPECT_EQ(ErrorText([] { Variant("2026-13-01 00:00:00").toDate(); }), kMismatch);
  EXPECT_EQ(ErrorText([] { Variant("yesterday").toDate(); }), kMismatch);
}
}  // namespace
}  // namespace qel::test
