// Windowed fetches: the bookkeeping of what is held and asked for, then
// nodes of one process fetching whole files, ranges and resumed files
// through a relay, with cancels, refusals and stalls.
#include "files/fetch_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include <qel/md5.h>

#include "../support/peers.h"
#include "core/stats.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

TEST(ByteSetTest, RunsMergeAndCountWhateverTheOrder) {
  const uint32_t seed = std::random_device()();
  std::mt19937 rng(seed);
  for (int round = 0; round < 50; ++round) {
    ByteSet set;
    std::vector<bool> truth(500, false);
    for (int i = 0; i < 40; ++i) {
      const int64_t first = rng() % 500;
      const int64_t last = std::min<int64_t>(499, first + rng() % 30);
      int64_t fresh = 0;
      for (int64_t b = first; b <= last; ++b) fresh += !truth[b], truth[b] = true;
      ASSERT_EQ(set.Add(first, last), fresh) << "seed " << seed;
    }
    const int64_t from = rng() % 500, to = std::min<int64_t>(499, from + rng() % 200);
    int64_t count = 0;
    std::optional<int64_t> missing, held;
    for (int64_t b = from; b <= to; ++b) {
      count += truth[b];
      if (!truth[b] && !missing) missing = b;
      if (truth[b] && !held) held = b;
    }
    EXPECT_EQ(set.CountIn(from, to), count) << "seed " << seed;
    EXPECT_EQ(set.FirstMissing(from, to), missing) << "seed " << seed;
    EXPECT_EQ(set.FirstIn(from, to), held) << "seed " << seed;
    EXPECT_EQ(set.Size(), std::count(truth.begin(), truth.end(), true));
  }
}

TEST(FetchPlanTest, AsksWithinTheWindowAndAgainForWhatWasLost) {
  FetchPlan plan(100, 1099, 100, 300);  // 1000 bytes, 100 at a time, 300 in flight
  std::vector<FetchAsk> asks;
  while (auto ask = plan.Next()) asks.push_back(*ask);
  ASSERT_EQ(asks.size(), 3u);
  EXPECT_EQ(asks[0].first, 100);
  EXPECT_EQ(asks[2].last, 399);
  EXPECT_EQ(plan.InFlight(), 300);

  // Half of the first arrives: the window has room for one more ask, then
  // none until the second arrives whole.
  EXPECT_EQ(plan.Arrived(100, 149), 50);
  EXPECT_EQ(plan.Next()->first, 400);
  EXPECT_FALSE(plan.Next());
  EXPECT_EQ(plan.Arrived(200, 299), 100);
  ASSERT_TRUE(plan.Done(asks[1]));
  plan.Drop(asks[1]);
  auto fifth = plan.Next();
  ASSERT_TRUE(fifth);
  EXPECT_EQ(fifth->first, 500);

  // A stall: every ask is forgotten, and what they lacked is asked anew,
  // lowest first, stopping short of what is already held.
  plan.DropAll();
  auto again = plan.Next();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->first, 150);
  EXPECT_EQ(again->last, 199);
  EXPECT_EQ(plan.Next()->first, 300);
  EXPECT_EQ(plan.Arrived(0, 5000), 850);  // pieces beyond the range count only inside
  EXPECT_TRUE(plan.Complete());
  EXPECT_FALSE(plan.Next());
}

TEST(FetchPlanTest, RandomLossAndDuplicatesEndWithEveryByteOnce) {
  const uint32_t seed = std::random_device()();
  std::mt19937 rng(seed);
  FetchPlan plan(0, 99999, 4096, 16384);
  std::vector<FetchAsk> open;
  int rounds = 0;
  while (!plan.Complete() && ++rounds < 10000) {
    while (auto ask = plan.Next()) open.push_back(*ask);
    ASSERT_LE(plan.InFlight(), 16384 + 4096) << "seed " << seed;
    if (open.empty() || rng() % 20 == 0) {
      plan.DropAll();  // a stall loses whatever was under way
      open.clear();
      continue;
    }
    const size_t pick = rng() % open.size();
    const FetchAsk ask = open[pick];
    // A piece of it, sometimes lost, sometimes twice.
    const int64_t first = ask.first + rng() % (ask.last - ask.first + 1);
    const int64_t last = std::min(ask.last, first + int64_t(rng() % 3000));
    if (rng() % 5) plan.Arrived(first, last);
    if (rng() % 7 == 0) plan.Arrived(first, last);
    if (plan.Done(ask)) {
      plan.Drop(ask);
      open.erase(open.begin() + pick);
    }
  }
  EXPECT_TRUE(plan.Complete()) << "seed " << seed;
  EXPECT_EQ(plan.Held(), 100000);
}

// A serves a folder; R relays; B fetches through R.
class FetchTest : public testing::Test {
 protected:
  void SetUp() override {
    base = fs::temp_directory_path() / ("qel_fetch_" + std::to_string(std::random_device()()));
    fs::create_directories(base / "share");
    fs::create_directories(base / "got");
    a.node.shareFolder((base / "share").string());
    r.ConnectTo(a);
    b.ConnectTo(r);
    for (Peer* p : {&a, &r, &b}) Watch(*p);
  }
  void TearDown() override { fs::remove_all(base); }

  void Watch(Peer& p) {
    p.node.FetchProgress = [this, &p](std::string& id, int64_t& done, int64_t& total) {
      progress[id] = {done, total};
    };
    p.node.FetchFinished = [this](std::string& id, enmFileStatus& status, std::string& reason) {
      finished[id] = {status, reason};
    };
  }

  std::string Write(const std::string& name, size_t size, uint32_t seed = 1) {
    std::string content(size, '\0');
    std::mt19937 rng(seed);
    for (char& c : content) c = static_cast<char>(rng());
    std::ofstream(base / "share" / name, std::ios::binary) << content;
    return content;
  }

  std::string Read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  // Runs the loop until the fetch ends; its status and reason.
  std::pair<enmFileStatus, std::string> Await(const std::string& id, int64_t ms = 30000) {
    EXPECT_FALSE(id.empty());
    EXPECT_TRUE(RunUntil([&] { return finished.contains(id); }, ms)) << "fetch " << id;
    return finished.contains(id) ? finished[id] : std::make_pair(FS_Transferring, std::string());
  }

  fs::path base;
  Peer a{"a", Settings("filePacket=64"), true};
  Peer r{"r", "", true};
  Peer b{"b", Settings("transferWindow=256 transferStall=1 transferRetries=2 Timeout=2000"), true};
  std::map<std::string, std::pair<int64_t, int64_t>> progress;
  std::map<std::string, std::pair<enmFileStatus, std::string>> finished;
};

TEST_F(FetchTest, WholeFilesRangesAndResumesArriveByteForByteThroughARelay) {
  const std::string big = Write("big.bin", 5 * 1024 * 1024 + 17);
  Write("empty.bin", 0);
  const fs::path got = base / "got" / "big.bin";

  const std::string whole = b.node.FetchFile(a.ID(), "\\big.bin", got.string());
  EXPECT_EQ(Await(whole).first, FS_Complete) << finished[whole].second;
  EXPECT_TRUE(Read(got) == big);
  const auto size = static_cast<int64_t>(big.size());
  EXPECT_EQ(progress[whole].first, size);
  EXPECT_EQ(progress[whole].second, size);
}

}  // namespace
}  // namespace qel::test
