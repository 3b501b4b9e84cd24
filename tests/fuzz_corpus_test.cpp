// The fuzz target's seed corpus runs with every test build too.
#include "connection_target.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace qel {
namespace {

TEST(FuzzCorpusTest, ConnectionSeedsRunClean) {
  size_t seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(QEL_FUZZ_CORPUS)) {
    std::ifstream file(entry.path(), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    SCOPED_TRACE(entry.path().string());
    FuzzConnectionInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ++seeds;
  }
  EXPECT_GE(seeds, 4u);
}

}  // namespace
}  // namespace qel
