// The folders of src/ are layers: a file includes only its own folder and
// folders of lower layers, so the tree reads bottom to top.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

namespace {

// Folders of one rank are peers and include none of each other.
const std::map<std::string, int> kRank = {{"core", 0},  {"settings", 1}, {"protocol", 1},
                                          {"net", 2},   {"routing", 3},  {"files", 4},
                                          {"users", 4}, {"rpc", 4},      {"node", 5},
                                          {"admin", 6}};

TEST(LayersTest, EveryIncludeInSrcPointsDown) {
  const std::filesystem::path src = QEL_SOURCE_DIR "/src";
  const std::regex include(R"(^\s*#\s*include\s+"([a-z_]+)/[^"]+")");
  int checked = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(src)) {
    const auto ext = entry.path().extension();
    if (ext != ".h" && ext != ".cpp") continue;
    const std::string here = std::filesystem::relative(entry.path(), src).begin()->string();
    ASSERT_TRUE(kRank.count(here)) << "src/" << here << " has no layer here";
    std::ifstream in(entry.path());
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
      std::smatch m;
      if (!std::regex_search(line, m, include) || !kRank.count(m[1])) continue;
      const std::string there = m[1];
      ++checked;
      EXPECT_TRUE(there == here || kRank.at(there) < kRank.at(here))
          << entry.path().string() << ":" << number << " includes " << there << "/";
    }
  }
  EXPECT_GT(checked, 0);
}

}  // namespace
