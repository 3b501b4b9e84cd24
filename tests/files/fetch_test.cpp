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
    bool joins = false;
    for (int64_t b = std::max<int64_t>(0, from - 1); b <= std::min<int64_t>(499, to + 1); ++b) {
      joins = joins || truth[b];
    }
    EXPECT_EQ(set.Joins(from, to), joins) << "seed " << seed;
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
  EXPECT_EQ(plan.HeldUpTo(), 150);  // what was held up to the first gap
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
  EXPECT_EQ(plan.HeldUpTo(), 1100);
  EXPECT_FALSE(plan.Next());
}

TEST(FetchPlanTest, ScatteredPiecesCannotGrowThePlanPastItsRuns) {
  const int64_t n = 4 * FetchPlan::kMaxRuns;
  FetchPlan plan(0, 2 * n, 2 * n + 1, 2 * n + 1);
  ASSERT_TRUE(plan.Next());
  int64_t refused = 0;
  for (int64_t b = 0; b < n; ++b) refused += plan.Arrived(2 * b, 2 * b) < 0;
  EXPECT_EQ(refused, n - static_cast<int64_t>(FetchPlan::kMaxRuns));
  // Filling a gap joins runs, so it is still taken, and the fetch can end.
  EXPECT_EQ(plan.Arrived(1, 1), 1);
  EXPECT_EQ(plan.Arrived(0, 2 * n), 2 * n + 1 - static_cast<int64_t>(FetchPlan::kMaxRuns) - 1);
  EXPECT_TRUE(plan.Complete());
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
  Peer b{"b", Settings("transferWindow=512 transferStall=1 transferRetries=2 Timeout=2000"), true};
  std::map<std::string, std::pair<int64_t, int64_t>> progress;
  std::map<std::string, std::pair<enmFileStatus, std::string>> finished;
};

TEST_F(FetchTest, WholeFilesRangesAndResumesArriveByteForByteThroughARelay) {
  const std::string big = Write("big.bin", 5 * 1024 * 1024 + 17);
  Write("empty.bin", 0);
  const auto size = static_cast<int64_t>(big.size());
  const fs::path got = base / "got" / "big.bin";
  // Stale bytes past the end must go: the fetch writes in place, then cuts.
  std::ofstream(got, std::ios::binary) << std::string(size + 999, 'x');

  const std::string whole = b.node.FetchFile(a.ID(), "\\big.bin", got.string(), {.verify = true});
  EXPECT_EQ(Await(whole).first, FS_Complete) << finished[whole].second;
  EXPECT_TRUE(Read(got) == big);
  EXPECT_EQ(progress[whole], std::make_pair(size, size));

  // A range is the local file's whole content; "-n" is the last n bytes.
  struct Case {
    typFetchOptions options;
    std::string expected;
  };
  const std::vector<Case> ranges = {
      {{.lngStart = 1000, .lngEnd = 300000}, big.substr(1000, 299001)},
      {{.lngStart = size - 10}, big.substr(size - 10)},
      {{.lngEnd = 100}, big.substr(size - 100)},
      {{.lngStart = 5, .lngEnd = size * 2}, big.substr(5)},  // clamped to the file
  };
  for (const Case& c : ranges) {
    const fs::path part = base / "got" / "part.bin";
    const std::string id = b.node.FetchFile(a.ID(), "/big.bin", part.string(), c.options);
    EXPECT_EQ(Await(id).first, FS_Complete) << c.options.lngStart << " " << finished[id].second;
    EXPECT_TRUE(Read(part) == c.expected) << c.options.lngStart << "-" << c.options.lngEnd;
  }

  // Resumed: the bytes already here stay, only the rest is asked for (the
  // wrong byte planted in the kept part proves it was not fetched again).
  std::string kept = big.substr(0, 3000000);
  kept[10] ^= 1;
  std::ofstream(got, std::ios::binary | std::ios::trunc) << kept;
  const std::string resumed = b.node.FetchFile(a.ID(), "\\big.bin", got.string(), {.resume = true});
  EXPECT_EQ(Await(resumed).first, FS_Complete);
  EXPECT_EQ(progress[resumed].second, size - 3000000);
  std::string expected = big;
  expected[10] ^= 1;
  EXPECT_TRUE(Read(got) == expected);
  // ...and verify catches exactly that.
  const std::string checked =
      b.node.FetchFile(a.ID(), "\\big.bin", got.string(), {.resume = true, .verify = true});
  EXPECT_EQ(Await(checked).first, FS_Canceled);
  EXPECT_NE(finished[checked].second.find("MD5 of"), std::string::npos) << finished[checked].second;

  const std::string empty =
      b.node.FetchFile(a.ID(), "\\empty.bin", (base / "got" / "e").string(), {.verify = true});
  EXPECT_EQ(Await(empty).first, FS_Complete) << finished[empty].second;
  EXPECT_EQ(fs::file_size(base / "got" / "e"), 0u);
}

TEST_F(FetchTest, WhatCannotBeFetchedFailsWithItsReasonAndLeavesNoFile) {
  Write("small.bin", 100);
  const fs::path local = base / "got" / "never.bin";
  struct Case {
    std::string node, path;
    typFetchOptions options;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {a.ID(), "\\missing.bin", {}, "no file \\missing.bin shared by " + a.ID()},
      {a.ID(), "\\..\\secret", {}, "no file"},
      {a.ID(), "\\small.bin", {.lngStart = 100}, "the range asks for nothing"},
      {"0123456789ABCDEF0123456789ABCDEF", "\\small.bin", {}, "no answer from"},
  };
  for (const Case& c : cases) {
    const std::string id = b.node.FetchFile(c.node, c.path, local.string(), c.options);
    const auto [status, reason] = Await(id);
    EXPECT_EQ(status, FS_Canceled) << c.path;
    EXPECT_NE(reason.find(c.reason), std::string::npos) << reason;
    EXPECT_FALSE(fs::exists(local)) << c.path;
  }
  // Misuse is refused before anything is sent.
  const size_t errors = b.errors.size();
  EXPECT_EQ(b.node.FetchFile(a.ID(), "\\small.bin", local.string(), {.lngStart = 9, .lngEnd = 3}),
            "");
  EXPECT_EQ(b.node.FetchFile(a.ID(), "\\small.bin", (base / "no" / "dir" / "f").string()), "");
  EXPECT_EQ(b.node.FetchFile(a.ID(), "\\" + std::string(70000, 'x'), local.string()), "");
  EXPECT_EQ(b.errors.size(), errors + 3);
  EXPECT_FALSE(fs::exists(local));
  EXPECT_EQ(StateOf(b.node).Fetches.Count(), 0u);
  EXPECT_FALSE(b.node.CancelFetch("not a fetch"));
}

// Two transfers from one asker: a cancel from a third node is ignored and
// counted, and neither feeds a fetch; the asker's cancel stops its own
// transfer within a piece or two while the other runs to its end.
TEST_F(FetchTest, CancelsStopTheirOwnTransferOnlyAndComeOnlyFromTheAsker) {
  const std::string big = Write("big.bin", 4 * 1024 * 1024);
  std::vector<std::string> served;  // ReqIDs a was asked for, in order
  int requests = 0;
  a.node.FileRequest = [&](std::string&, std::string&, std::string&, std::string& reqID,
                           std::vector<typQELRange>&, std::string&,
                           bool&) { served.push_back(reqID); };
  std::map<std::string, std::vector<enmFileStatus>> pieces;
  std::map<std::string, int64_t> bytes;
  b.node.FileReceived = [&](std::string& reqID, std::string& data, typQELRange&,
                            enmFileStatus& status, std::string&) {
    pieces[reqID].push_back(status);
    bytes[reqID] += static_cast<int64_t>(data.size());
  };
  const std::string x = b.node.RequestFile("\\big.bin", a.ID(), b.node.MakeRange());
  const std::string y = b.node.RequestFile("\\big.bin", a.ID(), b.node.MakeRange());
  ASSERT_TRUE(Eventually([&] { return served.size() == 2 && pieces[x].size() >= 1; }));
  const int64_t ignoredBefore = cQELStats().IgnoredCancels();
  r.node.SendFile(a.ID(), r.node.MakeRange(), "", x, FS_Canceled);  // not r's to stop
  b.node.SendFile(a.ID(), b.node.MakeRange(), "", "UNKNOWN", FS_Canceled);
  ASSERT_TRUE(Eventually([&] { return cQELStats().IgnoredCancels() == ignoredBefore + 2; }));
  b.node.SendFile(a.ID(), b.node.MakeRange(), "", x, FS_Canceled);
  ASSERT_TRUE(Eventually([&] {
    return !pieces[x].empty() && pieces[x].back() == FS_Canceled && !pieces[y].empty() &&
           pieces[y].back() == FS_Complete;
  }));
  EXPECT_LT(bytes[x], static_cast<int64_t>(big.size()));
  EXPECT_EQ(bytes[y], static_cast<int64_t>(big.size()));
  EXPECT_TRUE(Eventually([&] { return StateOf(a.node).Files.Served.empty(); }));

  // Many at once, each cancelled as soon as it is asked, among cancels for
  // nothing: every one stops, none runs to its end.
  std::vector<std::string> many;
  for (int i = 0; i < 300; ++i) {
    many.push_back(b.node.RequestFile("\\big.bin", a.ID(), b.node.MakeRange()));
    b.node.SendFile(a.ID(), b.node.MakeRange(), "", many.back(), FS_Canceled);
    b.node.SendFile(a.ID(), b.node.MakeRange(), "", "NOTHING" + std::to_string(i), FS_Canceled);
  }
  ASSERT_TRUE(Eventually([&] {
    return std::all_of(many.begin(), many.end(), [&](const std::string& id) {
      return !pieces[id].empty() && pieces[id].back() != FS_Transferring;
    });
  }));
  for (const std::string& id : many) EXPECT_EQ(pieces[id].back(), FS_Canceled);
  EXPECT_TRUE(Eventually([&] { return StateOf(a.node).Files.Served.empty(); }));

  // A fetch: r can neither stop it nor slip bytes into it.
  served.clear();
  const fs::path got = base / "got" / "big.bin";
  std::string fetch;
  bool meddled = false;
  b.node.FetchProgress = [&](std::string&, int64_t&, int64_t&) {
    if (meddled || served.empty()) return;
    meddled = true;
    r.node.SendFile(b.ID(), r.node.MakeRange(0, 9), "0123456789", served.back(), FS_Transferring);
    r.node.SendFile(a.ID(), r.node.MakeRange(), "", served.back(), FS_Canceled);
  };
  fetch = b.node.FetchFile(a.ID(), "\\big.bin", got.string());
  EXPECT_EQ(Await(fetch).first, FS_Complete) << finished[fetch].second;
  EXPECT_TRUE(meddled);
  EXPECT_TRUE(Read(got) == big);

  // The host's cancel, halfway: ended at once, and a is told to stop
  // serving it.
  served.clear();
  b.node.FetchProgress = nullptr;
  std::string other;
  a.node.FileRequest = [&](std::string&, std::string&, std::string&, std::string&,
                           std::vector<typQELRange>&, std::string&, bool&) {
    if (++requests != 3) return;
    other = b.node.FetchFile(a.ID(), "\\big.bin", (base / "got" / "other.bin").string());
    EXPECT_TRUE(b.node.CancelFetch(fetch));
    EXPECT_EQ(finished[fetch].second, "cancelled");
  };
  fetch = b.node.FetchFile(a.ID(), "\\big.bin", got.string());
  ASSERT_TRUE(Eventually([&] { return !other.empty(); }));
  EXPECT_EQ(Await(other).first, FS_Complete);
  EXPECT_EQ(finished[fetch].first, FS_Canceled);
  EXPECT_TRUE(Read(base / "got" / "other.bin") == big);
  EXPECT_TRUE(Eventually([&] { return StateOf(a.node).Files.Served.empty(); }));
}

// The link to the relay drops mid-fetch: back within the stall time, the
// fetch goes on where it stopped; gone for good, it fails saying so.
TEST_F(FetchTest, AFetchGoesOnWhenItsLinkComesBackAndFailsWhenItDoesNot) {
  const std::string big = Write("big.bin", 3 * 1024 * 1024);
  const fs::path got = base / "got" / "big.bin";
  bool cut = false, back = true;
  int requests = 0;
  // Cut while a serves the fourth request, so its pieces are lost.
  a.node.FileRequest = [&](std::string&, std::string&, std::string&, std::string&,
                           std::vector<typQELRange>&, std::string&, bool&) {
    if (++requests != 4) return;
    cut = true;
    b.node.DisconnectFrom(r.Address());
    if (back) Post([&] { b.node.Connect(r.Address()); });
  };
  std::string id = b.node.FetchFile(a.ID(), "\\big.bin", got.string(), {.verify = true});
  EXPECT_EQ(Await(id).first, FS_Complete) << finished[id].second;
  EXPECT_TRUE(cut);
  EXPECT_TRUE(Read(got) == big);

  cut = back = false;
  requests = 0;
  fs::remove(got);
  id = b.node.FetchFile(a.ID(), "\\big.bin", got.string());
  const auto [status, reason] = Await(id);
  EXPECT_EQ(status, FS_Canceled);
  EXPECT_NE(reason.find("nothing arrived from " + a.ID() + " for 1 s, asked again 2 times"),
            std::string::npos)
      << reason;
  // What stays is what arrived without a gap, so a resume can trust it.
  const std::string kept = Read(got);
  EXPECT_GT(kept.size(), 0u);
  EXPECT_LT(kept.size(), big.size());
  EXPECT_TRUE(big.compare(0, kept.size(), kept) == 0);
}
}  // namespace
}  // namespace qel::test
