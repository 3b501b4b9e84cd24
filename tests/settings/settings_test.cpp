#include <qel/settings.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "../support/error_text.h"

namespace qel::test {
namespace {

using Strings = std::vector<std::string>;

const std::string kCorrupt = "4 LoadSettings: Corrupt or incompatible XMLSettings file";

TEST(SettingsTest, TextFormIsExactAndLoadsBackThroughAFile) {
  cSettings s;
  s.SaveSetting("TTL", Variant(4), "COMMON");
  s.SaveSetting("useComp", Variant(true));
  s.SaveSetting("Name", Variant(""), "Other");
  s.SaveSetting("ttl", Variant(5));  // same key: one entry, first case kept
  const std::string xml =
      "<Settings>\r\n  <COMMON>\r\n    <TTL>5</TTL>\r\n    <useComp>True</useComp>\r\n"
      "  </COMMON>\r\n  <Other>\r\n    <Name></Name>\r\n  </Other>\r\n</Settings>";
  EXPECT_EQ(s.getXML(), xml);
  EXPECT_EQ(s.ListSections(), (Strings{"", "Other"}));
  EXPECT_EQ(s.ListSections(true), (Strings{"", "COMMON", "Other"}));

  const std::string path = testing::TempDir() + "settings_test.xml";
  s.SaveSettings(path);
  cSettings t;
  EXPECT_TRUE(t.LoadSettings(path));
  EXPECT_EQ(t.getXML(), s.getXML());
  EXPECT_EQ(t.GetSetting("ttl", {}, "common"), Variant("5"));  // loaded values are text
  EXPECT_EQ(t.GetSetting("missing", Variant(7)), Variant(7));
  EXPECT_EQ(ErrorText([&] { t.GetSetting("missing"); }), "2 GetSetting: Setting not found");
  EXPECT_EQ(ErrorText([&] { t.SaveSetting("a b", Variant(1)); }),
            "5 SaveSetting: Space characters not allowed in tag");
  std::filesystem::remove(path);
  EXPECT_EQ(ErrorText([&] { t.LoadSettings(path); }), "3 LoadSettings: File Not Found: " + path);
}

TEST(SettingsTest, CorruptTextFailsAndKeepsWhatWasRead) {
  cSettings s;
  s.SaveSetting("a", Variant("x</a>y"));  // accepted, but loads back cut short
  cSettings t;
  EXPECT_EQ(ErrorText([&] { t.LoadXML(s.getXML()); }), kCorrupt);
  EXPECT_EQ(t.GetSetting("a"), Variant("x"));
  for (const char* bad : {"<Common><k>v", "<C><k>v</K", "<C", "<C><k>v</j></C>",
                          "<C><ab</cd>x</ab</cd></C>", "<C><k>v</k></c><j>w</j></C>"}) {
    EXPECT_EQ(ErrorText([&] { t.LoadXML(bad); }), kCorrupt) << bad;
  }
  // Text between tags is ignored, end tags match without case and a repeated
  // section merges with the first.
  EXPECT_TRUE(t.LoadXML("junk<Settings><C><k>v</K></C>\r\n<c><j>w</j></c></Settings>"));
  EXPECT_EQ(t.GetSetting("J", {}, "C"), Variant("w"));
  EXPECT_EQ(t.ListSections(), (Strings{"", "C"}));
}

TEST(SettingsTest, ArraysStoreTheirUpperBound) {
  cSettings s;
  EXPECT_EQ(ErrorText([&] { s.GetSettingArray("L"); }),
            "2 GetSettingArray: Setting array not found");
  s.SaveSettingArray("L", {"a", "b", "c"});
  s.SaveSettingArray("E", {});
  EXPECT_EQ(s.GetSetting("Count", {}, "L"), Variant(2));
  cSettings t;
  t.LoadXML(s.getXML());
  EXPECT_EQ(t.GetSettingArray("l"), (Strings{"a", "b", "c"}));
  EXPECT_EQ(t.GetSettingArray("E"), Strings{});
  for (auto [count, error] : {std::pair{3, "2 GetSetting: Setting not found"},
                              {-2, "9 GetSettingArray: Subscript out of range"},
                              {40000, "6 GetSettingArray: Overflow"}}) {
    s.SaveSetting("Count", Variant(count), "L");
    EXPECT_EQ(ErrorText([&] { s.GetSettingArray("L"); }), error);
  }
}

TEST(SettingsTest, ClearPrevOnSaveAppendsAndDeleteRemovesEveryCopy) {
  cSettings s;
  s.ClearPrevOnSave(true);
  for (auto [key, value] : {std::pair{"k", 1}, {"K", 2}, {"other", 3}}) s.SaveSetting(key, value);
  EXPECT_EQ(s.GetSetting("k"), Variant(1));  // the older entry is found first
  s.DeleteSetting("K");
  EXPECT_EQ(s.GetSetting("k", Variant("gone")), Variant("gone"));
  EXPECT_EQ(s.GetSetting("other"), Variant(3));  // indices after it still line up
  s.DeleteSetting("other");
  EXPECT_EQ(s.getXML(), "<Settings>\r\n  <Common>\r\n  </Common>\r\n</Settings>");
}

TEST(SettingsTest, LimitsHoldAndLargeTextsLoadQuickly) {
  cSettings s;
  s.ClearPrevOnSave(true);  // appends without a lookup, so filling up is quick
  for (int i = 0; i < 32767; ++i) s.SaveSetting(std::to_string(i), Variant(i), "S");
  const std::string full = s.getXML();
  EXPECT_EQ(ErrorText([&] { s.SaveSetting("more", Variant(1)); }), "6 SaveSetting: Overflow");
  EXPECT_EQ(s.getXML(), full);  // not even section "Common" was made

  std::string text = "<Big><k>" + std::string(1 << 20, 'v') + "</k></Big>";
  for (int i = 0; i < 40000; ++i) {
    const std::string name = "s" + std::to_string(i);
    text += "<" + name + "><k>" + name + "</k></" + name + ">";
  }
  EXPECT_EQ(ErrorText([&] { s.LoadXML(text); }), kCorrupt);  // section 32768 does not fit
  EXPECT_EQ(s.ListSections().size(), 32768u);
  EXPECT_EQ(s.GetSetting("k", {}, "Big").toString().size(), 1u << 20);
  EXPECT_EQ(s.GetSetting("K", {}, "S32765"), Variant("s32765"));
}

}  // namespace
}  // namespace qel::test
