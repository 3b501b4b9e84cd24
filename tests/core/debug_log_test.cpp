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

}  // namespace
}  // namespace qel
