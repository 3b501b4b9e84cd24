// The fuzz targets' seed corpora run with every test build too.
#include "connection_target.h"
#include "settings_target.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

namespace qel {
namespace {

// Runs each seed of corpus/name through run and returns how many there were.
size_t RunSeeds(const std::string& name, const std::function<void(const uint8_t*, size_t)>& run) {
  size_t seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(QEL_FUZZ_CORPUS "/" + name)) {
    std::ifstream file(entry.path(), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    SCOPED_TRACE(entry.path().string());
    run(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ++seeds;
  }
  return seeds;
}

TEST(FuzzCorpusTest, ConnectionSeedsRunCleanAndRelayWholeMessages) {
  ConnectionFuzzer fuzzer;
  size_t relayed = 0;
  EXPECT_GE(RunSeeds("connection",
                     [&](const uint8_t* data, size_t size) {
                       EXPECT_TRUE(fuzzer.Run(data, size));
                       relayed += !fuzzer.Relayed().empty();
                     }),
            6u);
  // The target is only worth its time if inputs get as far as the relay.
  EXPECT_GE(relayed, 2u);
}

TEST(FuzzCorpusTest, SettingsSeedsRunClean) {
  EXPECT_GE(RunSeeds("settings", FuzzSettingsInput), 4u);
}

}  // namespace
}  // namespace qel
