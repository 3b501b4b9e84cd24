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
  std::string answers;
  EXPECT_GE(RunSeeds("connection",
                     [&](const uint8_t* data, size_t size) {
                       EXPECT_TRUE(fuzzer.Run(data, size));
                       relayed += !fuzzer.Relayed().empty();
                       answers += fuzzer.Answered();
                     }),
            6u);
  // The target is only worth its time if inputs get as far as the relay.
  EXPECT_GE(relayed, 2u);
  // ... and as far as every handler that answers a peer: serving a file to
  // its end and stopping one on its asker's cancel, hashing beside the loop.
  for (const char* type : {"INFO", "PONG", "CONFIRM", "CONTENTS", "SEARCHMATCH", "FILEINFO", "FILE",
                           "RPCRETURN", "USERLIST", "LOGINRESULT"}) {
    EXPECT_NE(answers.find(std::string(type) + "  QEL/2.1\r\n"), std::string::npos) << type;
  }
  for (const char* field :
       {"FileStatus: 1\r\n", "FileStatus: 2\r\n", "Params: OK\r\n", "Params: RPC_UNBOUND\r\n",
        "Login-Result: OK\r\n", "900150983cd24fb0d6963f7d28e17f72"}) {
    EXPECT_NE(answers.find(field), std::string::npos) << field;
  }
  // The share holds links out of it; nothing behind them is ever served.
  EXPECT_EQ(answers.find("outside the share"), std::string::npos);
}

TEST(FuzzCorpusTest, SettingsSeedsRunClean) {
  EXPECT_GE(RunSeeds("settings", FuzzSettingsInput), 4u);
}

}  // namespace
}  // namespace qel
