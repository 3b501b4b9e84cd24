#include "empty_listing.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "files/listing.h"
#include "files/remote_path.h"
#include "files/shares.h"

namespace {

namespace fs = std::filesystem;
using qelcli::EmptyListing;

// The serving side's own listing and file information over real folders,
// asked the way the console asks through a node: the asker refuses "..\".
struct SharingNode {
  std::vector<qel::typSharedFolder> folders;
  bool sharing = false;
  int questions = 0;

  qelcli::ListingQuestions Questions() {
    qelcli::ListingQuestions ask;
    ask.fileInfo = [this](const std::string& path) {
      ++questions;
      qel::typFileInfo info;
      info.isAnswered = true;
      info.lngSize = -1;
      std::error_code ec;
      if (auto local = qel::LocalPathInShare(folders, sharing, path);
          local && fs::is_regular_file(*local, ec)) {
        info.lngSize = static_cast<int64_t>(fs::file_size(*local));
      }
      return info;
    };
    ask.list = [this](std::string path) {
      ++questions;
      std::replace(path.begin(), path.end(), '/', '\\');
      if (path.find("..\\") != std::string::npos) return std::vector<std::string>{};
      std::vector<std::string> listing = qel::ListSharedPath(folders, sharing, path, false);
      listing.erase(listing.begin());
      return listing;
    };
    ask.sharesFiles = [this] { return std::optional<bool>(sharing); };
    return ask;
  }
  EmptyListing Explain(const std::string& path) {
    // Only an empty listing is explained.
    EXPECT_EQ(qel::ListSharedPath(folders, sharing, path, false).size(), 1u) << path;
    return qelcli::ExplainEmptyListing(path, Questions());
  }
};

class EmptyListingTest : public testing::Test {
 protected:
  void SetUp() override {
    base_ =
        fs::path(testing::TempDir()) / ("empty-listing-" + std::to_string(std::random_device()()));
    for (const char* folder : {"first/empty", "first/x", "first/sub/inner", "first/my dir",
                               "first/a..b/c", "second/inner", "third"}) {
      fs::create_directories(base_ / folder);
    }
    std::ofstream(base_ / "first" / "f.txt") << "abc";
    std::ofstream(base_ / "first" / "sub" / "g.txt") << "g";
  }
  void TearDown() override { fs::remove_all(base_); }

  SharingNode Node(std::initializer_list<const char*> shares) {
    SharingNode node;
    for (const char* share : shares)
      qel::ShareFolder(node.folders, node.sharing, (base_ / share).string());
    return node;
  }

  fs::path base_;
};

TEST_F(EmptyListingTest, AnEmptyFolderIsToldFromAMissingOneOnANodeOfOneShare) {
  SharingNode node = Node({"first"});
  for (const char* empty :
       {"\\empty", "\\empty\\", "/empty/", "\\\\sub\\inner", "\\sub\\.\\inner", "\\sub\\inner\\.",
        "\\.\\empty", "\\sub%5Cinner", "\\sub%252Finner", "\\my%20dir", "\\a..b\\c"}) {
    EXPECT_EQ(node.Explain(empty), EmptyListing::Empty) << empty;
  }
  for (const char* missing : {"\\nosuch", "\\nosuch\\", "\\nosuch\\inner", "\\sub\\nosuch",
                              "\\f.txt\\x", "\\sub\\..", "\\a%00"}) {
    EXPECT_EQ(node.Explain(missing), EmptyListing::Missing) << missing;
  }
  EXPECT_EQ(node.Explain("\\f.txt"), EmptyListing::File);
  EXPECT_EQ(node.Explain("\\sub\\g.txt"), EmptyListing::File);
  EXPECT_EQ(node.Explain("\\..\\first\\empty"), EmptyListing::Refused);
  EXPECT_EQ(node.Explain("\\sub\\100%"), EmptyListing::Unknown);
}

// "\NAME\" is the share NAME, any other path lies in the first share.
TEST_F(EmptyListingTest, PathsOfANodeOfSeveralSharesAreLookedUpWhereTheNodeResolvesThem) {
  SharingNode node = Node({"first", "second", "third"});
  for (const char* empty : {"\\third\\", "\\second\\inner", "\\empty", "\\empty\\", "\\x", "\\x\\",
                            "\\.\\x", "\\sub\\inner"}) {
    EXPECT_EQ(node.Explain(empty), EmptyListing::Empty) << empty;
  }
  // "\third" is a folder "third" of the first share: there is none.
  for (const char* missing : {"\\third", "\\second", "\\second\\nosuch", "\\inner", "\\nosuch\\"}) {
    EXPECT_EQ(node.Explain(missing), EmptyListing::Missing) << missing;
  }
}

TEST_F(EmptyListingTest, TheTopOfANodeSharingNothingAndSilenceAreSaid) {
  SharingNode empty = Node({"third"});
  EXPECT_EQ(empty.Explain("\\"), EmptyListing::Empty);
  EXPECT_EQ(empty.Explain("/."), EmptyListing::Empty);
  SharingNode none;
  EXPECT_EQ(none.Explain("\\"), EmptyListing::NotSharing);

  qelcli::ListingQuestions silent = none.Questions();
  silent.fileInfo = [](const std::string&) { return qel::typFileInfo{}; };
  silent.list = [](const std::string&) -> std::vector<std::string> {
    ADD_FAILURE() << "a silent node is asked nothing more";
    return {};
  };
  EXPECT_EQ(qelcli::ExplainEmptyListing("\\x", silent), EmptyListing::NoAnswer);
}

// The console's reading of a path is the serving node's.
TEST_F(EmptyListingTest, PathsDecodeAsTheNodeDecodesThem) {
  for (const char* path : {"", "\\", "/a//b/", "a%20b", "%2541", "%252F", "x%5C%5Cy", "%4", "a%",
                           "%zz", "%%41", "\\a\\.\\b"}) {
    EXPECT_EQ(qelcli::DecodeRemotePath(path), qel::CleanRemotePath(path)) << path;
  }
}

}  // namespace
