#include <qel/settings.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>

#include <qel/error.h>

namespace qel {
namespace {

using Strings = std::vector<std::string>;

// "number source: message" of the QelError f throws, or "" when it throws none.
std::string Err(const std::function<void()>& f) {
  try {
    f();
  } catch (const QelError& e) {
    return std::to_string(e.Number) + " " + e.Source + ": " + e.Description;
  }
  return "";
}

const std::string kCorrupt = "4 LoadSettings: Corrupt or incompatible XMLSettings file";

TEST(SettingsTest, TextFormIsExactAndLoadsBack) {
  cSettings s;
  EXPECT_EQ(s.getXML(), "<Settings>\r\n</Settings>");
  s.SaveSetting("TTL", Variant(4));
  s.SaveSetting("useComp", Variant(true));
  s.SaveSetting("Name", Variant(""), "Other");
  s.SaveSetting("ttl", Variant(5), "COMMON");  // same key: one entry, first case kept
  const std::string xml =
      "<Settings>\r\n  <Common>\r\n    <TTL>5</TTL>\r\n    <useComp>True</useComp>\r\n"
      "  </Common>\r\n  <Other>\r\n    <Name></Name>\r\n  </Other>\r\n</Settings>";
  EXPECT_EQ(s.getXML(), xml);

  cSettings t;
  EXPECT_TRUE(t.LoadXML(xml));
  EXPECT_EQ(t.getXML(), xml);
  EXPECT_EQ(t.GetSetting("ttl", {}, "common"), Variant("5"));  // loaded values are text
  EXPECT_EQ(t.GetSetting("NAME", {}, "other"), Variant(""));
}

TEST(SettingsTest, CorruptTextFailsAndKeepsWhatWasRead) {
  cSettings s;
  s.SaveSetting("a", Variant("x</a>y"));  // accepted, but loads back cut short
  cSettings t;
  EXPECT_EQ(Err([&] { t.LoadXML(s.getXML()); }), kCorrupt);
  EXPECT_EQ(t.GetSetting("a"), Variant("x"));

  EXPECT_TRUE(t.LoadXML(""));
  EXPECT_EQ(t.ListSections(true), Strings{""});
  for (const char* bad : {"<Common><k>v", "<C><k>v</K", "<C", "<C><k>v</j></C>",
                          "<C><ab</cd>x</ab</cd></C>", "<C><k>v</k></c><j>w</j></C>"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(Err([&] { t.LoadXML(bad); }), kCorrupt);
  }
  // Text between tags is ignored, end tags match without case and a repeated
  // section merges with the first.
  EXPECT_TRUE(t.LoadXML("junk<Settings><C><k>v</K></C>\r\n<c><j>w</j></c></Settings>"));
  EXPECT_EQ(t.GetSetting("J", {}, "C"), Variant("w"));
  EXPECT_EQ(t.ListSections(), (Strings{"", "C"}));
}

TEST(SettingsTest, LookupsDefaultsAndErrors) {
  cSettings s;
  EXPECT_EQ(s.GetSetting("missing", Variant(7)), Variant(7));
  EXPECT_EQ(Err([&] { s.GetSetting("missing"); }), "2 GetSetting: Setting not found");
  EXPECT_EQ(Err([&] { s.SaveSetting("a b", Variant(1)); }),
            "5 SaveSetting: Space characters not allowed in tag");
  EXPECT_EQ(Err([&] { s.GetSettingArray("L"); }), "2 GetSettingArray: Setting array not found");
  EXPECT_EQ(s.GetSettingArray("L", Strings{"d"}), Strings{"d"});

  s.SaveSetting("k", Variant(1), "COMMON");
  s.SaveSetting("k", Variant(1), "Bob");
  EXPECT_EQ(s.ListSections(), (Strings{"", "Bob"}));
  EXPECT_EQ(s.ListSections(true), (Strings{"", "COMMON", "Bob"}));
}

TEST(SettingsTest, ArraysStoreTheirUpperBound) {
  cSettings s;
  s.SaveSettingArray("L", {"a", "b", "c"});
  s.SaveSettingArray("E", {});
  EXPECT_EQ(s.GetSetting("Count", {}, "L"), Variant(2));
  cSettings t;
  t.LoadXML(s.getXML());
  EXPECT_EQ(t.GetSettingArray("l"), (Strings{"a", "b", "c"}));
  EXPECT_EQ(t.GetSettingArray("E"), Strings{});

  s.SaveSetting("Count", Variant(3), "L");
  EXPECT_EQ(Err([&] { s.GetSettingArray("L"); }), "2 GetSetting: Setting not found");
  s.SaveSetting("Count", Variant(-2), "L");
  EXPECT_EQ(Err([&] { s.GetSettingArray("L"); }), "9 GetSettingArray: Subscript out of range");
  s.SaveSetting("Count", Variant(40000), "L");
  EXPECT_EQ(Err([&] { s.GetSettingArray("L"); }), "6 GetSettingArray: Overflow");
}

TEST(SettingsTest, ClearPrevOnSaveAndDeleteSetting) {
  cSettings s;
  s.ClearPrevOnSave(true);
  s.SaveSetting("k", Variant(1));
  s.SaveSetting("K", Variant(2));
  s.SaveSetting("other", Variant(3));
  EXPECT_EQ(s.GetSetting("k"), Variant(1));  // the older entry is found first
  EXPECT_NE(s.getXML().find("<K>2</K>"), std::string::npos);

  s.DeleteSetting("K");
  EXPECT_EQ(s.GetSetting("k", Variant("gone")), Variant("gone"));
  EXPECT_EQ(s.GetSetting("other"), Variant(3));  // indices after it still line up
  s.DeleteSetting("other");
  EXPECT_EQ(s.getXML(), "<Settings>\r\n  <Common>\r\n  </Common>\r\n</Settings>");
}

TEST(SettingsTest, FileRoundTripAndMissingFile) {
  const std::string path = testing::TempDir() + "settings_test.xml";
  cSettings s;
  s.SaveSetting("TTL", Variant(5));
  s.SaveSettings(path);
  std::ifstream in(path, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  EXPECT_EQ(bytes, s.getXML());
  EXPECT_EQ(s.GetSetting("AppName", {}, "FileInfo"), Variant("Mardek QEL"));

  cSettings t;
  EXPECT_TRUE(t.LoadSettings(path));
  EXPECT_EQ(t.getXML(), bytes);
  std::filesystem::remove(path);
  EXPECT_EQ(Err([&] { t.LoadSettings(path); }), "3 LoadSettings: File Not Found: " + path);
}

TEST(SettingsTest, LimitsHoldAndLargeTextsLoadQuickly) {
  cSettings s;
  s.ClearPrevOnSave(true);  // appends without a lookup, so filling up is quick
  for (int i = 0; i < 32767; ++i) s.SaveSetting(std::to_string(i), Variant(i), "S");
  const std::string full = s.getXML();
  EXPECT_EQ(Err([&] { s.SaveSetting("more", Variant(1)); }), "6 SaveSetting: Overflow");
  EXPECT_EQ(s.getXML(), full);  // not even section "Common" was made

  std::string text = "<Big><k>" + std::string(1 << 20, 'v') + "</k></Big>";
  for (int i = 0; i < 40000; ++i) {
    const std::string name = "s" + std::to_string(i);
    text += "<" + name + "><k>" + name + "</k></" + name + ">";
  }
  EXPECT_EQ(Err([&] { s.LoadXML(text); }), kCorrupt);  // section 32768 does not fit
  EXPECT_EQ(s.ListSections().size(), 32768u);
  EXPECT_EQ(s.GetSetting("k", {}, "Big").toString().size(), 1u << 20);
  EXPECT_EQ(s.GetSetting("K", {}, "S32765"), Variant("s32765"));
}

TEST(SettingsTest, RandomTextNeverBreaksTheLoader) {
  const uint32_t seed = 20240611;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  auto fill = [&](std::string text, const std::string& from) {
    for (char& c : text) c = from[rng() % from.size()];
    return text;
  };
  for (int round = 0; round < 200; ++round) {
    cSettings s;
    for (int i = 0, n = rng() % 20; i < n; ++i) {
      s.SaveSetting(fill(std::string(1 + rng() % 4, ' '), "abcXYZ09_"),
                    Variant(fill(std::string(rng() % 6, ' '), "xyz />&\r\n")), fill(" ", "ABCab"));
    }
    const std::string xml = s.getXML();
    cSettings copy;
    ASSERT_TRUE(copy.LoadXML(xml));
    ASSERT_EQ(copy.getXML(), xml);

    const std::string noise = "<>/ aAbB\r\nSettings";
    std::string mutated = xml;
    for (int i = 0; i < 3; ++i) mutated[rng() % mutated.size()] = noise[rng() % noise.size()];
    for (const std::string& bad : {mutated, fill(std::string(rng() % 200, ' '), noise)}) {
      const std::string error = Err([&] { copy.LoadXML(bad); });
      EXPECT_TRUE(error.empty() || error == kCorrupt) << bad;
    }
  }
}

}  // namespace
}  // namespace qel
