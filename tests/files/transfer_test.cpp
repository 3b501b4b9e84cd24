// What a file transfer is made of: digests and pieces of files.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include <qel/file_io.h>
#include <qel/md5.h>

#include "files/file_hash.h"

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
  EXPECT_EQ(md5.MD5("The quick brown fox jumps over the lazy dog"),
            "9e107d9d372bb6826bd81d3542a419d6");

  std::string big(2 * kHashChunk + 3, '\0');
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

}  // namespace
}  // namespace qel
