#include "files/shares.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/node_state.h"

namespace qel {
namespace {

TEST(SharesTest, NamesFoldersAfterTheirLastComponentAndSkipsMissingOnes) {
  auto base = std::filesystem::path(testing::TempDir()) / "qel_shares";
  std::filesystem::create_directories(base / "docs");
  NodeState node;
  for (std::string path : {std::string("   "), (base / "missing").string(),
                           (base / "docs").string() + "/", (base / "docs").string()}) {
    ShareFolder(node, path);
  }
  ASSERT_EQ(node.SharedFolders.size(), 2u);  // the same folder twice is kept twice
  EXPECT_EQ(node.SharedFolders[0].Path, (base / "docs").string());
  EXPECT_EQ(node.SharedFolders[0].Name, "docs");
  EXPECT_TRUE(node.SharingFiles);
  EXPECT_EQ(LastPathPart("a\\b/c"), "c");
  EXPECT_EQ(LastPathPart("plain"), "plain");
}

}  // namespace
}  // namespace qel
