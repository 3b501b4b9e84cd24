#include <qel/advanced_settings.h>

#include <gtest/gtest.h>

#include "../support/peers.h"

namespace qel::test {
namespace {

std::string Describe(const std::vector<SettingProblem>& problems) {
  std::string text;
  for (const auto& p : problems) {
    text += (p.isError ? "error " : "warning ") + p.key + "=" + p.value + ": " + p.message + "\n";
  }
  return text;
}

TEST(AdvancedSettingsTest, CheckNamesWrongTypesRangesAndUnknownKeys) {
  EXPECT_EQ(Describe(CheckAdvancedSettings("")), "");
  // Keys match in any case; only section Common is read.
  EXPECT_EQ(Describe(CheckAdvancedSettings(Settings("ttl=5 USECOMP=true"))), "");
  cSettings other;
  other.SaveSetting("Colour", "red", "Other");
  EXPECT_EQ(Describe(CheckAdvancedSettings(other.getXML())), "");

  EXPECT_EQ(Describe(CheckAdvancedSettings(
                Settings("TTL=many useEnc=maybe Timeout=-1 maxRoutes=40000 filePacket=2097152 "
                         "Tiemout=900 netPass=any:text"))),
            "error TTL=many: must be an integer from 0 to 2147483647\n"
            "error useEnc=maybe: must be True or False\n"
            "error Timeout=-1: must be an integer from 0 to 2147483647\n"
            "error maxRoutes=40000: must be an integer from 0 to 32767\n"
            "error filePacket=2097152: must be an integer from 1 to 2097151\n"
            "warning Tiemout=900: not a setting, ignored\n");

  auto corrupt = CheckAdvancedSettings("<Settings><Common><TTL>5");
  ASSERT_EQ(corrupt.size(), 1u);
  EXPECT_TRUE(corrupt[0].isError);
  EXPECT_NE(corrupt[0].message.find("Error 4"), std::string::npos) << corrupt[0].message;
}

// A check that lets a value through must not leave Initialise to fail on it.
TEST(AdvancedSettingsTest, InitialiseTakesEveryValueTheCheckAccepts) {
  Peer n("n");
  for (const AdvancedSetting& s : AdvancedSettingsTable()) {
    std::vector<std::string> values{std::string(s.defaultValue)};
    if (s.type != SettingType::Boolean && s.type != SettingType::Text) {
      values = {std::to_string(s.min), std::to_string(s.max)};
    }
    for (const std::string& value : values) {
      const std::string text = Settings(std::string(s.key) + "=" + value);
      EXPECT_EQ(Describe(CheckAdvancedSettings(text)), "");
      n.node.Initialise("n", 0, role_Peer, "", "", text);
      EXPECT_TRUE(n.errors.empty()) << s.key << "=" << value << ": " << n.errors.front();
      n.errors.clear();
    }
  }
}

}  // namespace
}  // namespace qel::test
