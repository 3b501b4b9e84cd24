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
size_t RunSeeds(const std::string& name, const std::function<void(const std::string&)>& run) {
  size_t seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(QEL_FUZZ_CORPUS "/" + name)) {
    std::ifstream file(entry.path(), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    SCOPED_TRACE(entry.path().string());
    run(bytes);
    ++seeds;
  }
  return seeds;
}

const uint8_t* Bytes(const std::string& s) {
  return reinterpret_cast<const uint8_t*>(s.data());
}

TEST(FuzzCorpusTest, ConnectionSeedsRunCleanAndRelayWholeMessages) {
  ConnectionFuzzer fuzzer;
  size_t relayed = 0;
  const size_t seeds = RunSeeds("connection", [&](const std::string& bytes) {
    EXPECT_TRUE(fuzzer.Run(Bytes(bytes), bytes.size()));
    if (!fuzzer.Relayed().empty()) ++relayed;
  });
  EXPECT_GE(seeds, 6u);
  // The target is only worth its time if inputs get as far as the relay.
  EXPECT_GE(relayed, 2u);
}

TEST(FuzzCorpusTest, SettingsSeedsRunClean) {
  const size_t seeds = RunSeeds(
      "settings", [](const std::string& bytes) { FuzzSettingsInput(Bytes(bytes), bytes.size()); });
  EXPECT_GE(seeds, 4u);
}

}  // namespace
}  // namespace qel
