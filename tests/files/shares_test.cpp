// What other nodes may reach of the shared folders: the path mapping, listings
// and searches, on a small tree with links inside and out of it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "files/listing.h"
#include "files/remote_path.h"

namespace qel {
namespace {

namespace fs = std::filesystem;
using Listing = std::vector<std::string>;

class SharesTest : public testing::Test {
 protected:
  void SetUp() override {
    base = fs::temp_directory_path() / ("qel_shares_" + std::to_string(std::random_device()()));
    for (const char* dir : {"docs/sub/deep", "music", "secret"}) fs::create_directories(base / dir);
    for (const char* file : {"docs/a.txt", "docs/Notes.TXT", "docs/sub/b.txt", "docs/sub/deep/c.md",
                             "docs/50%.txt", "music/song1.mp3", "secret/s.txt"}) {
      std::ofstream(base / file) << file;
    }
    fs::create_directory_symlink(base / "docs/sub", base / "docs/in_link");
    fs::create_directory_symlink(base / "secret", base / "docs/out_link");
    fs::create_symlink(base / "secret/s.txt", base / "docs/out_file");
    fs::create_directory_symlink("..", base / "docs/sub/up");  // a cycle
    ShareFolder(one, sharing, (base / "docs//").string());
    two = one;
    ShareFolder(two, sharing, (base / "music").string());
  }
  void TearDown() override { fs::remove_all(base); }

  fs::path Local(const std::vector<typSharedFolder>& shares, std::string_view remote) {
    return LocalPathInShare(shares, true, remote).value_or("<refused>");
  }

  fs::path base;
  bool sharing = false;
  std::vector<typSharedFolder> one, two;
};

TEST_F(SharesTest, RemotePathsStayInsideTheirShare) {
  ASSERT_EQ(one[0].Name, "docs");
  const fs::path docs = fs::canonical(base / "docs");
  for (std::string_view remote : {"\\..\\secret\\s.txt", "\\sub\\..\\..\\secret", "/%2e%2e/secret",
                                  "\\%252e%252e\\secret", "\\sub\\%2E%2e", "\\C:\\Windows", "\\d:x",
                                  "\\out_link\\s.txt", "\\out_file", "\\a%00b", "\\%zz"}) {
    EXPECT_EQ(Local(one, remote), "<refused>") << remote;
  }
  EXPECT_EQ(Local(one, std::string("\\a\0b", 4)), "<refused>");
  EXPECT_EQ(LocalPathInShare(one, false, "\\a.txt"), std::nullopt);
  EXPECT_EQ(LocalPathInShare({typSharedFolder{}}, true, "\\a.txt"), std::nullopt);

  const fs::path music = fs::canonical(base / "music");
  const std::vector<std::tuple<bool, std::string_view, fs::path>> accepted = {
      {false, "\\", docs},
      {false, "/sub/./b.txt", docs / "sub/b.txt"},
      {false, "\\\\sub\\\\\\b%2etxt", docs / "sub/b.txt"},
      {false, "\\in_link\\b.txt", docs / "sub/b.txt"},
      {false, "/etc/passwd", docs / "etc/passwd"},
      {false, "\\music\\song1.mp3", docs / "music/song1.mp3"},
      {true, "\\music\\song1.mp3", music / "song1.mp3"},
      {true, "\\sub\\b.txt", docs / "sub/b.txt"},  // no share named: entry 0
      {true, "\\music", docs / "music"},
  };
  for (const auto& [several, remote, local] : accepted) {
    EXPECT_EQ(Local(several ? two : one, remote), local) << remote;
  }
}

TEST_F(SharesTest, ListingsPutFoldersFirstAndLeaveOutWhatCannotBeServed) {
  EXPECT_EQ(ListSharedPath(one, true, "\\", false),
            (Listing{"", "\\in_link\\", "\\sub\\", "\\Notes.TXT", "\\a.txt"}));
  EXPECT_EQ(ListSharedPath(one, true, "/", true),
            (Listing{"", "\\in_link\\", "\\sub\\", "\\sub\\deep\\", "\\sub\\up\\", "\\Notes.TXT",
                     "\\a.txt", "\\sub\\b.txt", "\\sub\\deep\\c.md"}));
  EXPECT_EQ(ListSharedPath(one, true, "\\in_link", true),
            (Listing{"", "\\deep\\", "\\up\\", "\\b.txt", "\\deep\\c.md"}));
  EXPECT_EQ(ListSharedPath(two, true, "\\", true), (Listing{"", "\\docs\\", "\\music\\"}));
  EXPECT_EQ(ListSharedPath(two, true, "\\music\\", false), (Listing{"", "\\song1.mp3"}));
  EXPECT_EQ(ListSharedPath(two, true, "/music/", true), (Listing{"", "music\\\\song1.mp3"}));
  for (std::string_view refused : {"\\..", "\\missing", "\\a.txt", "\\out_link"}) {
    EXPECT_EQ(ListSharedPath(one, true, refused, true), Listing{""}) << refused;
  }
  EXPECT_EQ(ListSharedPath(one, false, "\\", false), Listing{""});
}

TEST(LikeTest, WildcardsListsAndRangesIgnoringCase) {
  const std::vector<std::tuple<std::string_view, std::string_view, bool>> rows = {
      {"Kitchen-Node", "CHEN", true}, {"file1.txt", "file#", true},  {"filex.txt", "file#", false},
      {"abc", "a?c", true},           {"ac", "a?c", false},          {"bat", "[bc]at", true},
      {"rat", "[!r]at", false},       {"Mat", "[a-m]at", true},      {"zat", "[a-m]at", false},
      {"a-b", "[-]", true},           {"[draft] x", "[draft", true}, {"abc", "[]abc", true},
      {"abc", "a*c*", true},          {"abc", "a*d", false},
  };
  for (const auto& [name, text, match] : rows) {
    EXPECT_EQ(MatchesNodeName(name, text), match) << name << " / " << text;
  }
  // Many stars against a long name that fails at its end stay quick.
  EXPECT_FALSE(MatchesNodeName(std::string(20000, 'a'), std::string(2000, '*') + "a*b"));
}

}  // namespace
}  // namespace qel
