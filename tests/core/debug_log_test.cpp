#include "core/debug_log.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace qel {
namespace {

std::string TempStore(const std::string& name) {
  auto path = std::filesystem::path(testing::TempDir()) / name / "settings.xml";
  std::filesystem::remove_all(path.parent_path());
  return path.string();
}

TEST(DebugLogTest, StaysOffUnlessTheUserSwitchSaysTrue) {
  DebugLog log;
  for (std::string value : {"", "False", "perhaps"}) {
    UserSettings store(TempStore("qel_dbg_" + value));
    if (!value.empty()) store.Set("debug", "enabled", value);
    log.CheckDebugMode(store, "10.0.0.1");
    EXPECT_FALSE(log.Enabled()) << value;
  }
  EXPECT_EQ(log.Text(), "");
}

TEST(DebugLogTest, OpensOnceWithVersionAndAddress) {
  UserSettings on(TempStore("qel_dbg_on"));
  on.Set("debug", "enabled", "true");
  DebugLog log;
  log.CheckDebugMode(on, "10.0.0.1");
  ASSERT_TRUE(log.Enabled());
  const std::string text = log.Text();
  EXPECT_TRUE(text.starts_with("Entered QEL Debug Mode 20"));
  EXPECT_NE(text.find("QEL Version 2.1.166\r\n"), std::string::npos);
  EXPECT_TRUE(text.ends_with("Local Address: 10.0.0.1\r\n\r\n"));
  log.CheckDebugMode(on, "10.0.0.2");  // a second node object: nothing new
  EXPECT_EQ(log.Text(), text);
}

TEST(DebugLogTest, TrimDropsAsManyOldCharactersAsTheNewLineHas) {
  DebugLog log;
  log.EnableForTest();
  log.Write(std::string(31988, 'a'));  // 31990 with its line break
  ASSERT_EQ(log.Text().size(), 31990u);
  log.Write(std::string(20, 'b'));
  EXPECT_EQ(log.Text().size(), 31990u - 20 + 22);
  EXPECT_TRUE(log.Text().ends_with(std::string(20, 'b') + "\r\n"));
  for (int i = 0; i < 100; ++i) log.Write(std::string(1000, 'c'));
  EXPECT_LE(log.Text().size(), DebugLog::kLimit + 1002);
}

TEST(UserSettingsTest, KeepsOtherValuesWhenOneIsWritten) {
  UserSettings store(TempStore("qel_user_store"));
  EXPECT_EQ(store.Get("debug", "width", "7200"), "7200");
  store.Set("debug", "width", "100");
  store.Set("debug", "height", "200");
  EXPECT_EQ(store.Get("DEBUG", "Width", "7200"), "100");
  EXPECT_EQ(store.Get("debug", "height", ""), "200");
}

}  // namespace
}  // namespace qel
