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

// Positions are 64-bit: a sparse file reaches past 4 GiB without taking
// the disk space.
TEST_F(FileIoTest, PositionsPastFourGiB) {
  constexpr int64_t kFiveGiB = int64_t{5} << 30;
  clsFileIO2 file;
  ASSERT_TRUE(file.openFile((dir / "sparse.bin").string()));
  file.filePos(kFiveGiB + 1);
  try {
    file.writeChunk("tail");
  } catch (const std::system_error& e) {
    GTEST_SKIP() << "the file system holds no file this large: " << e.what();
  }
  EXPECT_EQ(file.filePos(), kFiveGiB + 5);
  EXPECT_EQ(static_cast<int64_t>(fs::file_size(dir / "sparse.bin")), kFiveGiB + 4);
  file.filePos((int64_t{1} << 32) + 1);
  file.writeChunk("four");
  std::string data;
  file.filePos((int64_t{1} << 32) - 1);
  EXPECT_EQ(file.readChunk(8, data), 8);
  EXPECT_EQ(data, std::string("\0\0four\0\0", 8));
  // A size beyond what is left reads only what is left.
  file.filePos(kFiveGiB - 1);
  EXPECT_EQ(file.readChunk(int64_t{1} << 33, data), 6);
  EXPECT_EQ(data, std::string("\0\0tail", 6));
  EXPECT_EQ(file.filePos(), kFiveGiB + 5);
  EXPECT_EQ(file.readChunk(1, data), 0);
  // At the largest position nothing is read, and a write would wrap.
  file.filePos(INT64_MAX);
  EXPECT_EQ(file.readChunk(1, data), 0);
  EXPECT_THROW(file.writeChunk("xy"), std::system_error);
}

TEST(RangeTest, TextBothWays) {
  std::string texts;
  for (const typQELRange& range :
       {MakeRange(0, 99), MakeRange(5), MakeRange(-1, 20), MakeRange(), MakeRange(-1, -1, 9)}) {
    texts += RangeText(range) + "|";
  }
  for (const typQELRange& range : {MakeRange(int64_t{5} << 30, (int64_t{5} << 30) + 999),
                                   MakeRange(int64_t{1} << 32), MakeRange(-1, int64_t{3} << 31)}) {
    texts += RangeText(range) + "|";
  }
  EXPECT_EQ(texts, "0-99|5-|-20|||5368709120-5368710119|4294967296-|-6442450944|");
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
      {"2147483648-", "2147483648,-1,-1;"},
      {"-4294967296/4611686018427387903", "-1,4294967296,4611686018427387903;"},
      {"", ""},
      {most, mostRead},
  };
  for (const auto& [text, expected] : read) EXPECT_EQ(parsed(text), expected) << text;
  std::vector<std::string> malformed = {most + ",1-2", std::string(100000, ',')};
  for (const char* bad : {"5", "a-b", "1-2x", "--5", "1--2", "+1-2", "4611686018427387904-",
                          "1-2,", "1-2/x", "0x1-2", "1-2,,3-4", "-99999999999999999999",
                          "0-9223372036854775807", "0-1/18446744073709551616"}) {
    malformed.push_back(bad);
  }
  for (const std::string& bad : malformed) {
    EXPECT_EQ(parsed(bad), "malformed") << bad.substr(0, 40);
  }
}

// Offsets past 2 and 4 GiB, and numbers a host may put in a range that no
// arithmetic on them may overflow.
TEST(RangeTest, ServedSpansOfLargeFilesAndExtremeNumbers) {
  auto span = [](const typQELRange& range, int64_t size) {
    std::optional<ByteSpan> s = ServedSpan(range, size);
    return s ? std::to_string(s->first) + "-" + std::to_string(s->last) : "none";
  };
  constexpr int64_t kThreeGiB = int64_t{3} << 30, kSixGiB = int64_t{6} << 30;
  const std::vector<std::tuple<typQELRange, int64_t, std::string>> cases = {
      {MakeRange(), kThreeGiB, "0-3221225471"},
      {MakeRange(-1, 1000), kThreeGiB, "3221224472-3221225471"},
      {MakeRange(kThreeGiB - 1), kThreeGiB, "3221225471-3221225471"},
      {MakeRange(kThreeGiB), kThreeGiB, "none"},
      {MakeRange(int64_t{1} << 32, (int64_t{1} << 32) + 9), kSixGiB, "4294967296-4294967305"},
      {MakeRange(int64_t{1} << 31, INT64_MAX), kThreeGiB, "2147483648-3221225471"},
      {MakeRange(-1, INT64_MAX), kThreeGiB, "0-3221225471"},
      {MakeRange(INT64_MAX), kThreeGiB, "none"},
      {MakeRange(INT64_MAX, INT64_MAX), INT64_MAX, "none"},
      {MakeRange(0, INT64_MAX), INT64_MAX, "0-9223372036854775806"},
      {MakeRange(INT64_MIN, INT64_MIN), 10, "0-9"},  // negatives are left-out numbers
      {MakeRange(INT64_MIN, 4), 10, "6-9"},
      {MakeRange(5, INT64_MIN), 10, "5-9"},
  };
  for (const auto& [range, size, expected] : cases) {
    EXPECT_EQ(span(range, size), expected) << RangeText(range) << " of " << size;
  }
  EXPECT_EQ(ContentRangeText(kSixGiB - 10, kSixGiB - 1, kSixGiB),
            "6442450934-6442450943/6442450944");
}

}  // namespace
}  // namespace qel
