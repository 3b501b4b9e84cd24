// What a file transfer is made of: digests, pieces of files and byte ranges.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include <qel/file_io.h>
#include <qel/md5.h>

#include "files/ranges.h"

namespace qel {
namespace {

namespace fs = std::filesystem;

class TempFolder : public testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("qel_transfer_" + std::to_string(std::random_device()()));
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }
  fs::path dir;
};

using Md5Test = TempFolder;
using FileIoTest = TempFolder;

TEST_F(Md5Test, KnownDigestsAndFilesHashedInChunks) {
  const cMD5 md5;
  EXPECT_EQ(md5.MD5(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5.MD5("abc"), "900150983cd24fb0d6963f7d28e17f72");

  std::string big(2 * (size_t{1} << 20) + 3, '\0');
  std::mt19937 rng(7);
  for (char& c : big) c = static_cast<char>(rng());
  for (const std::string& content : {std::string(), std::string("small"), big}) {
    std::ofstream(dir / "f", std::ios::binary) << content;
    EXPECT_EQ(GetFileHash(dir / "f"), md5.MD5(content)) << content.size();
  }
  EXPECT_THROW(GetFileHash(dir / "missing"), std::system_error);
  EXPECT_THROW(GetFileHash(dir), std::system_error);
}

TEST_F(FileIoTest, PiecesAreReadAndWrittenAtTheOneBasedPosition) {
  clsFileIO2 file;
  const std::string path = (dir / "new.bin").string();
  EXPECT_FALSE(file.openFile(path, false));
  EXPECT_FALSE(fs::exists(path));
  EXPECT_FALSE(file.openFile(dir.string()));
  ASSERT_TRUE(file.openFile(path));

  file.writeChunk("hello");
  EXPECT_EQ(file.filePos(), 6);
  file.filePos(3);
  file.writeChunk("LL");
  file.filePos(8);  // past the end: a hole of zeros
  file.writeChunk("!");
  std::string data = "stale";
  file.filePos(2);
  EXPECT_EQ(file.readChunk(3, data), 3);
  EXPECT_EQ(data, "eLL");
  EXPECT_EQ(file.filePos(), 5);
  EXPECT_EQ(file.readChunk(100, data), 4);
  EXPECT_EQ(data, std::string("o\0\0!", 4));
  EXPECT_EQ(file.readChunk(100, data), 0);
  EXPECT_EQ(data, "");

  EXPECT_THROW(file.filePos(0), std::invalid_argument);
  EXPECT_THROW(file.readChunk(-1, data), std::invalid_argument);
  clsFileIO2 moved = std::move(file);
  EXPECT_THROW(file.writeChunk("x"), std::logic_error);
  moved.closeFile();
  EXPECT_THROW(moved.readChunk(1, data), std::logic_error);
  EXPECT_EQ(fs::file_size(path), 8u);
}

TEST(RangeTest, TextBothWays) {
  std::string texts;
  for (const typQELRange& range :
       {MakeRange(0, 99), MakeRange(5), MakeRange(-1, 20), MakeRange(), MakeRange(-1, -1, 9)}) {
    texts += RangeText(range) + "|";
  }
  EXPECT_EQ(texts, "0-99|5-|-20|||");
  EXPECT_FALSE(MakeRange(-1, -1, 0).isEmpty);

  auto parsed = [](std::string_view text) {
    std::optional<std::vector<typQELRange>> ranges = ParseRanges(text);
    std::string out = ranges ? "" : "malformed";
    for (const typQELRange& r : ranges.value_or(std::vector<typQELRange>{})) {
      out += std::to_string(r.lngStart) + "," + std::to_string(r.lngEnd) + "," +
             std::to_string(r.lngLen) + (r.isEmpty ? " empty;" : ";");
    }
    return out;
  };
  std::string most, mostRead;
  for (size_t i = 0; i < kMaxRangeParts; ++i) most += "1-2,", mostRead += "1,2,-1;";
  most.pop_back();
  const std::vector<std::pair<std::string, std::string>> read = {
      {"0-99", "0,99,-1;"},
      {" 5- , -20/300,0-0/0", "5,-1,-1;-1,20,300;0,0,0;"},
      {"-", "-1,-1,-1 empty;"},
      {"2147483647-", "2147483647,-1,-1;"},
      {"", ""},
      {most, mostRead},
  };
  for (const auto& [text, expected] : read) EXPECT_EQ(parsed(text), expected) << text;
  std::vector<std::string> malformed = {most + ",1-2", std::string(100000, ',')};
  for (const char* bad : {"5", "a-b", "1-2x", "--5", "1--2", "+1-2", "2147483648-", "1-2,", "1-2/x",
                          "0x1-2", "1-2,,3-4", "-99999999999999999999"}) {
    malformed.push_back(bad);
  }
  for (const std::string& bad : malformed) {
    EXPECT_EQ(parsed(bad), "malformed") << bad.substr(0, 40);
  }
}

}  // namespace
}  // namespace qel
