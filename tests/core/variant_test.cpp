#include <qel/variant.h>

#include <gtest/gtest.h>

#include <regex>

#include "../support/error_text.h"

namespace qel::test {
namespace {

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
