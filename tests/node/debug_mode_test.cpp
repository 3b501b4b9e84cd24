// The per-user debug switch and the store it lives in.
#include "node/user_settings.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "node/module.h"

namespace qel {
namespace {

std::string TempStore(const std::string& name) {
  auto path = std::filesystem::path(testing::TempDir()) / name / "settings.xml";
  std::filesystem::remove_all(path.parent_path());
  return path.string();
}

TEST(DebugModeTest, OpensOnceWhenTheUserSwitchSaysTrue) {
  DebugLog log;
  for (std::string value : {"", "False", "perhaps"}) {
    UserSettings store(TempStore("qel_dbg_" + value));
    if (!value.empty()) store.Set("debug", "enabled", value);
    CheckDebugMode(log, store, "10.0.0.1");
    EXPECT_FALSE(log.Enabled()) << value;
  }
  UserSettings on(TempStore("qel_dbg_on"));
  on.Set("debug", "enabled", "true");
  CheckDebugMode(log, on, "10.0.0.1");
  ASSERT_TRUE(log.Enabled());
  const std::string text = log.Text();
  EXPECT_TRUE(text.starts_with("Entered QEL Debug Mode 20"));
  EXPECT_TRUE(text.ends_with("Local Address: 10.0.0.1\r\n\r\n"));
  CheckDebugMode(log, on, "10.0.0.2");  // a second node object: nothing new
  EXPECT_EQ(log.Text(), text);
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
