#include <qel/variant.h>

#include <gtest/gtest.h>

#include <regex>

#include <qel/error.h>

namespace qel {
namespace {

int32_t ErrorNumberOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const QelError& e) {
    return e.Number;
  }
  return 0;
}

TEST(VariantTest, WritesAndReadsTextAsTheSettingsStoreDoes) {
  EXPECT_EQ(Variant(5).toString(), "5");
  EXPECT_EQ(Variant(-2147483648LL).toString(), "-2147483648");
  EXPECT_EQ(Variant(true).toString(), "True");
  EXPECT_EQ(Variant(false).toString(), "False");
  EXPECT_EQ(Variant(1.5).toString(), "1.5");
  EXPECT_EQ(Variant(1e20).toString(), "1E+20");
  EXPECT_EQ(Variant(std::string("a\0b", 3)).toString(), std::string("a\0b", 3));

  for (const char* yes : {"TRUE", "-1", "True"}) EXPECT_TRUE(Variant(yes).toBool()) << yes;
  for (const char* no : {"false", " 0 "}) EXPECT_FALSE(Variant(no).toBool()) << no;
  EXPECT_EQ(Variant(" 42 ").toInt32(), 42);
  EXPECT_EQ(Variant("&H1F").toInt32(), 31);
  EXPECT_EQ(Variant("&o17").toInt32(), 15);
  EXPECT_EQ(Variant("2.5").toInt32(), 2);  // banker's rounding
  EXPECT_EQ(Variant("3.5").toInt32(), 4);
  EXPECT_EQ(Variant("1e3").toInt64(), 1000);
  EXPECT_EQ(Variant("True").toInt32(), -1);
  EXPECT_EQ(Variant(true).toInt32(), -1);
  EXPECT_EQ(Variant("2147483647").toInt32(), 2147483647);
  EXPECT_DOUBLE_EQ(Variant("-0.25").toDouble(), -0.25);
}

TEST(VariantTest, FailedConversionsRaiseTheClassicNumbers) {
  for (const char* bad : {"", "abc", "1x", "inf", "nan", "0x10", "&H", "&Hzz", "yes"}) {
    EXPECT_EQ(ErrorNumberOf([&] { Variant(bad).toInt32(); }), 13) << bad;
    EXPECT_EQ(ErrorNumberOf([&] { Variant(bad).toBool(); }), 13) << bad;
  }
  EXPECT_EQ(ErrorNumberOf([] { Variant("2147483648").toInt32(); }), 6);
  EXPECT_EQ(ErrorNumberOf([] { Variant("-2147483649").toInt32(); }), 6);
  EXPECT_EQ(ErrorNumberOf([] { Variant("1e300").toInt64(); }), 6);
  EXPECT_EQ(ErrorNumberOf([] { Variant(std::numeric_limits<uint64_t>::max()); }), 6);
}

TEST(VariantTest, DatesRoundTripThroughText) {
  Variant now = Variant::Now();
  const std::string text = now.toString();
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << text;
  EXPECT_EQ(Variant(text).toDate(), now.toDate());
  EXPECT_EQ(ErrorNumberOf([] { Variant("2026-13-01 00:00:00").toDate(); }), 13);
  EXPECT_EQ(ErrorNumberOf([] { Variant("yesterday").toDate(); }), 13);
}

}  // namespace
}  // namespace qel
