#include "files/shares.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/node_state.h"

namespace qel {
namespace {

TEST(SharesTest, NamesFoldersAfterTheirLastComponent) {
  auto base = std::filesystem::path(testing::TempDir()) / "qel_shares";
  std::filesystem::create_directories(base / "docs");
  std::filesystem::create_directories(base / "Music");
  NodeState node;
  std::string docs = (base / "docs").string() + "/";
  ShareFolder(node, docs);
  ShareFolder(node, (base / "Music").string());
  ASSERT_EQ(node.SharedFolders.size(), 2u);
  EXPECT_EQ(node.SharedFolders[0].Path, (base / "docs").string());
  EXPECT_EQ(node.SharedFolders[0].Name, "docs");
  EXPECT_EQ(node.SharedFolders[1].Name, "Music");
  EXPECT_TRUE(node.SharingFiles);
  EXPECT_EQ(LastPathPart("a\\b/c"), "c");
  EXPECT_EQ(LastPathPart("plain"), "plain");
}

}  // namespace
}  // namespace qel
