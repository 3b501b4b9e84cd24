#include "files/shares.h"

#include <gtest/gtest.h>

#include <filesystem>
namespace qel {
namespace {

TEST(SharesTest, NamesFoldersAfterTheirLastComponentAndSkipsMissingOnes) {
  auto base = std::filesystem::path(testing::TempDir()) / "qel_shares";
  std::filesystem::create_directories(base / "docs");
  std::vector<typSharedFolder> folders;
  bool sharing = false;
  for (std::string path : {std::string("   "), (base / "missing").string(),
                           (base / "docs").string() + "/", (base / "docs").string()}) {
    ShareFolder(folders, sharing, path);
  }
  ASSERT_EQ(folders.size(), 2u);  // the same folder twice is kept twice
  EXPECT_EQ(folders[0].Path, (base / "docs").string());
  EXPECT_EQ(folders[0].Name, "docs");
  EXPECT_TRUE(sharing);
  EXPECT_EQ(LastPathPart("a\\b/c"), "c");
  EXPECT_EQ(LastPathPart("plain"), "plain");
}

}  // namespace
}  // namespace qel
