// Shares over the network: three nodes of one process asking each other, raw
// peers asking for what lies outside the shares or answering with garbage.
#include <fcntl.h>
#include <stdio.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <thread>

#include <qel/file_io.h>
#include <qel/md5.h>

#include "../support/peers.h"
#include "core/stats.h"
#include "files/ranges.h"
#include "files/sharing.h"
#include "net/links.h"
#include "net/worker.h"
#include "routing/outgoing.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;
using Listing = std::vector<std::string>;
using Found = std::vector<std::pair<std::string, std::string>>;

Found Sorted(Found found) {
  std::sort(found.begin(), found.end());
  return found;
}

std::string Info(const typFileInfo& info) {
  return std::to_string(info.lngSize) + " " + info.strHash + (info.isAnswered ? "" : "(none)");
}

// b shares one folder, which holds a link out of it, c two; a shares none.
// a asks through b, c hangs off b.
class SharingTest : public testing::Test {
 protected:
  void SetUp() override {
    base = fs::temp_directory_path() / ("qel_sharing_" + std::to_string(std::random_device()()));
    for (const char* dir : {"b/docs/sub", "c/docs", "c/music", "secret"}) {
      fs::create_directories(base / dir);
    }
    for (std::string file : {"b/docs/abc.txt=abc", "b/docs/empty.txt=", "b/docs/sub/notes.txt=n",
                             "c/docs/report.txt=r", "c/music/song.mp3=s", "secret/key.txt=k"}) {
      std::ofstream(base / file.substr(0, file.find('='))) << file.substr(file.find('=') + 1);
    }
    fs::create_directory_symlink(base / "secret", base / "b/docs/out");
    b.node.shareFolder((base / "b/docs").string());
    c.node.shareFolder((base / "c/docs").string());
    c.node.shareFolder((base / "c/music").string());
    a.ConnectTo(b);
    c.ConnectTo(b);
  }
  void TearDown() override { fs::remove_all(base); }

  fs::path base;
  Peer a{"asker", Settings("Timeout=10000"), true}, b{"Bee", "", true}, c{"Cee|Sea", "", true};
};

TEST_F(SharingTest, ListingsAndFileInformationOfOneShareAndOfTwo) {
  const std::vector<std::tuple<Peer*, std::string, bool, Listing>> listings = {
      {&b, "\\", false, {"", "\\sub\\", "\\abc.txt", "\\empty.txt"}},
      {&b, "/", true, {"", "\\sub\\", "\\abc.txt", "\\empty.txt", "\\sub\\notes.txt"}},
      {&c, "\\", true, {"", "\\docs\\", "\\music\\"}},
      {&c, "/music/", false, {"", "\\song.mp3"}},
      {&c, "\\docs\\", true, {"", "docs\\\\report.txt"}},
  };
  for (const auto& [peer, path, recursive, expected] : listings) {
    EXPECT_EQ(a.node.GetContents(path, peer->ID(), recursive), expected) << path;
  }
  const std::vector<std::tuple<Peer*, std::string, bool, std::string>> infos = {
      {&b, "\\abc.txt", true, "3 "},
      {&b, "/abc.txt", false, "3 900150983cd24fb0d6963f7d28e17f72"},
      {&b, "\\empty.txt", false, "0 d41d8cd98f00b204e9800998ecf8427e"},
      {&b, "\\empty.txt", true, "0 "},
      {&b, "\\missing.txt", false, "-1 "},
      {&b, "\\missing.txt", true, "-1 "},
      {&b, "\\sub", false, "-1 "},
  };
  for (const auto& [peer, path, skipHash, expected] : infos) {
    EXPECT_EQ(Info(a.node.GetFileInfo(path, peer->ID(), skipHash)), expected) << path;
  }
  // Paths with parent steps are refused before anything is sent.
  const int64_t sent = TheStats().OutPacketCount;
  EXPECT_EQ(a.node.GetContents("/sub/../../secret", b.ID()), Listing{""});
  EXPECT_EQ(Info(a.node.GetFileInfo("\\..\\secret\\key.txt", b.ID(), false)), "0 (none)");
  EXPECT_EQ(TheStats().OutPacketCount, sent);
  // A node nobody knows never answers: that is not an empty file.
  StateOf(a.node).Timeout = 300;
  EXPECT_EQ(Info(a.node.GetFileInfo("\\abc.txt", "{NO-SUCH-NODE}", true)), "0 (none)");
  EXPECT_TRUE(a.errors.empty() && b.errors.empty() && c.errors.empty());
}

TEST_F(SharingTest, SearchesGatherTheAnswersOfEveryNode) {
  StateOf(a.node).Timeout = 2000;  // a search waits all of it; answers come at once
  auto search = [&](enmSearchType type, const std::string& text) {
    Found found;
    for (const typSearchResult& r : a.node.SearchReq(type, text)) {
      found.emplace_back(r.nodeID, r.Result);
    }
    return Sorted(found);
  };
  EXPECT_EQ(search(Find_Node, "EE"),
            Sorted({{"", ""}, {b.ID(), "Bee"}, {c.ID(), "Cee"}, {c.ID(), "Sea"}}));
  const Found files = search(Find_File, ".t?t");
  EXPECT_EQ(files, Sorted({{"", ""},
                           {b.ID(), "\\\\abc.txt"},
                           {b.ID(), "\\\\empty.txt"},
                           {b.ID(), "\\\\sub\\notes.txt"},
                           {c.ID(), "\\docs\\report.txt"}}));
  // Each result names the file to whoever asks for it.
  for (size_t i = 1; i < files.size(); ++i) {
    EXPECT_GE(a.node.GetFileInfo(files[i].second, files[i].first).lngSize, 0) << files[i].second;
  }
}

// A request or answer as a raw peer writes it.
std::string Raw(const std::string& type, const std::string& reqID, const std::string& resource,
                const std::string& body, const std::string& destination) {
  return type + " " + resource +
         RawMsg(type + reqID, "ReqID: " + reqID + "\r\n", body, destination).substr(4);
}

// What an asker received for one request: the bytes and each piece's
// Content-Range and status.
struct Received {
  std::string data, pieces;
  int last = -1;
};

void Record(Peer& asker, std::map<std::string, Received>& got) {
  asker.node.FileReceived = [&got](std::string& id, std::string& data, typQELRange& r,
                                   enmFileStatus& status, std::string&) {
    Received& one = got[id];
    one.data += data;
    one.pieces += std::to_string(r.lngStart) + "-" + std::to_string(r.lngEnd) + "/" +
                  std::to_string(r.lngLen) + ":" + std::to_string(status) + " ";
    one.last = status;
  };
}

TEST_F(SharingTest, FilesAndRangesComeBackInPiecesAndWhatCannotBeServedIsCanceled) {
  std::map<std::string, Received> got;
  Record(a, got);
  const std::vector<std::tuple<std::string, typQELRange, std::string>> cases = {
      {"\\abc.txt", MakeRange(), "0-2/3:1 "},
      {"\\abc.txt", MakeRange(1), "1-2/3:1 "},
      {"\\abc.txt", MakeRange(1, 1), "1-1/3:1 "},
      {"\\abc.txt", MakeRange(-1, 2), "1-2/3:1 "},
      {"\\abc.txt", MakeRange(0, 99), "0-2/3:1 "},
      {"\\empty.txt", MakeRange(), "-1--1/-1:1 "},  // "0--1/0" names no bytes
      {"\\abc.txt", MakeRange(3), "-1--1/-1:2 "},
      {"\\abc.txt", MakeRange(2, 1), "-1--1/-1:2 "},
      {"\\abc.txt", MakeRange(-1, 0), "-1--1/-1:2 "},
      {"\\empty.txt", MakeRange(0, 0), "-1--1/-1:2 "},
      {"\\..\\..\\secret\\key.txt", MakeRange(), "-1--1/-1:2 "},
      {"\\out\\key.txt", MakeRange(), "-1--1/-1:2 "},
      {"\\sub", MakeRange(), "-1--1/-1:2 "},
  };
  std::vector<std::string> ids;
  for (const auto& [path, range, pieces] : cases) ids.push_back(a.node.RequestFile(path, b.ID(), range));
  ASSERT_TRUE(Eventually([&] { return got.size() == cases.size(); }));
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(got[ids[i]].pieces, std::get<2>(cases[i])) << std::get<0>(cases[i]);
  }
  EXPECT_EQ(got[ids[0]].data + got[ids[1]].data, "abcbc");

  // A host may answer a request itself.
  b.node.FileRequest = [&](std::string&, std::string& fullPath, std::string& asker,
                           std::string& reqID, std::vector<typQELRange>&, std::string&,
                           bool& takeNoAction) {
    takeNoAction = true;
    b.node.SendFile(asker, b.node.MakeRange(10, 16, 100), fs::path(fullPath).filename().string(),
                    reqID, FS_Complete);
  };
  const std::string mine = a.node.RequestFile("\\abc.txt", b.ID(), MakeRange());
  ASSERT_TRUE(Eventually([&] { return got.contains(mine); }));
  // The length is not written with a range SendFile is given.
  EXPECT_EQ(got[mine].data + " " + got[mine].pieces, "abc.txt 10-16/-1:1 ");
}

// Pieces of the default size are read straight into their message, on the
// relay and on the asker: two transfers at once, whole and a range, must
// still come back byte for byte.
TEST_F(SharingTest, LargePiecesThroughARelayArriveIntact) {
  std::string big((3 << 20) + 777, '\0');
  std::mt19937 rng(5);
  for (char& ch : big) ch = static_cast<char>(rng());
  std::ofstream(base / "c/docs/big.bin", std::ios::binary)
      .write(big.data(), static_cast<std::streamsize>(big.size()));
  std::map<std::string, Received> got;
  Record(a, got);
  const std::string whole = a.node.RequestFile("\\docs\\big.bin", c.ID(), MakeRange()),
                    part = a.node.RequestFile("\\docs\\big.bin", c.ID(), MakeRange(1000, 1500000));
  ASSERT_TRUE(Eventually([&] {
    return got[whole].last == FS_Complete && got[part].last == FS_Complete;
  })) << got[whole].pieces
      << "/ " << got[part].pieces;
  EXPECT_TRUE(got[whole].data == big);
  EXPECT_TRUE(got[part].data == big.substr(1000, 1499001));
  EXPECT_TRUE(a.errors.empty() && b.errors.empty() && c.errors.empty());
}

TEST(TransferTest, PiecesOfAPacketEachAndACancelStopsTheServer) {
  const fs::path dir = fs::temp_directory_path() / ("qel_transfer_" + std::to_string(getpid()));
  fs::create_directories(dir);
  std::string big(1 << 20, 'x');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 1024);
  for (const auto& [name, size] : std::vector<std::pair<std::string, size_t>>{
           {"one-less", 1023}, {"exact", 2048}, {"one-more", 2049}, {"big", big.size()}}) {
    std::ofstream(dir / name, std::ios::binary).write(big.data(), static_cast<std::streamsize>(size));
  }
  Peer server("server", Settings("filePacket=1"), true), asker("asker");
  server.node.shareFolder(dir.string());
  asker.ConnectTo(server);
  std::map<std::string, Received> got;
  Record(asker, got);
  const std::string lessID = asker.node.RequestFile("\\one-less", server.ID(), MakeRange()),
                    exactID = asker.node.RequestFile("\\exact", server.ID(), MakeRange()),
                    moreID = asker.node.RequestFile("\\one-more", server.ID(), MakeRange(1000, 2048));
  ASSERT_TRUE(Eventually([&] { return got.size() == 3 && got[lessID].last == FS_Complete &&
                                      got[exactID].last == FS_Complete &&
                                      got[moreID].last == FS_Complete; }));
  EXPECT_EQ(got[lessID].pieces, "0-1022/1023:1 ");
  EXPECT_EQ(got[exactID].pieces, "0-1023/2048:0 1024-2047/2048:0 2048-2047/2048:1 ");
  EXPECT_EQ(got[moreID].pieces, "1000-2023/2049:0 2024-2048/2049:1 ");
  EXPECT_EQ(got[exactID].data, big.substr(0, 2048));
  EXPECT_EQ(got[moreID].data, big.substr(1000, 1049));

  // The asker cancels on the first piece; the server sends at most a few more.
  std::string bigID;
  asker.node.FileReceived = [&](std::string& id, std::string& data, typQELRange&,
                                enmFileStatus& status, std::string&) {
    Received& one = got[id];
    if (one.data.empty()) asker.node.SendFile(server.ID(), MakeRange(), "", id, FS_Canceled);
    one.data += data;
    one.last = status;
  };
  bigID = asker.node.RequestFile("\\big", server.ID(), MakeRange());
  ASSERT_TRUE(Eventually([&] { return got[bigID].last == FS_Canceled; }));
  EXPECT_LT(got[bigID].data.size(), big.size() / 4);

  // An asker that leaves ends the transfer: the rest would flood the others.
  Peer bystander("bystander");
  bystander.ConnectTo(server);
  asker.node.FileReceived = [&](std::string&, std::string&, typQELRange&, enmFileStatus&,
                                std::string&) { asker.node.DisconnectAll(); };
  asker.node.RequestFile("\\big", server.ID(), MakeRange());
  ASSERT_TRUE(Eventually([&] { return !asker.node.isConnected(); }));
  const int64_t sentBefore = TheStats().OutPacketCount;
  RunUntil([] { return false; }, 300);
  EXPECT_LT(TheStats().OutPacketCount - sentBefore, 10);

  // An asker that reads nothing holds the server to a few pieces queued.
  fs::resize_file(dir / "big", 64 << 20);
  const int stuck = Dial(server.Port(), 4096);
  ASSERT_TRUE(Eventually([&] { return server.established.size() == 3; }));
  const std::string get = "GET \\big QEL/2.1\r\nDestination: " + server.ID() +
                          "\r\nSource: RAW\r\nReqID: R\r\nID: G1\r\nTTL: 1\r\n\r\n";
  ASSERT_EQ(send(stuck, get.data(), get.size(), 0), static_cast<ssize_t>(get.size()));
  size_t most = 0;
  RunUntil(
      [&] {
        for (LinkId link : links::UpLinks(StateOf(server.node))) {
          most = std::max(most, links::QueuedBytes(link));
        }
        return false;
      },
      300);
  EXPECT_GT(most, 0u);
  EXPECT_LE(most, 3u * 1024 + 4096) << "the server queued more than a few pieces";
  close(stuck);
  fs::remove_all(dir);
}

// Bodies leave straight from the file, so one cut while its pieces wait in the queue must
// not go out shorter than its header says, nor padded: the link ends inside that piece,
// the server says why, and every piece that did arrive whole is the file's own bytes.
TEST(TransferTest, AFileCutWhileItsPiecesWaitEndsTheLinkInsteadOfSendingLess) {
  const fs::path dir = fs::temp_directory_path() / ("qel_cut_" + std::to_string(getpid()));
  fs::create_directories(dir);
  std::string content(16 << 20, '\0');
  std::mt19937 rng(11);
  for (char& ch : content) ch = static_cast<char>(rng());
  std::ofstream(dir / "big", std::ios::binary)
      .write(content.data(), static_cast<std::streamsize>(content.size()));
  Peer server("server", Settings("filePacket=64"), true);
  server.node.shareFolder(dir.string());
  const int stuck = Dial(server.Port(), 4096);
  ASSERT_TRUE(Eventually([&] { return server.established.size() == 1; }));
  const std::string get = "GET \\big QEL/2.1\r\nDestination: " + server.ID() +
                          "\r\nSource: RAW\r\nReqID: R\r\nID: G1\r\nTTL: 1\r\n\r\n";
  ASSERT_EQ(send(stuck, get.data(), get.size(), 0), static_cast<ssize_t>(get.size()));
  // The peer reads nothing yet: once two pieces wait, the first stayed queued after a write,
  // so the socket is full and the file is read from there on only as the peer reads.
  ASSERT_TRUE(Eventually([&] {
    const std::vector<LinkId> up = links::UpLinks(StateOf(server.node));
    return !up.empty() && links::QueuedBytes(up.front()) >= 2 * 64 * 1024;
  }));
  fs::resize_file(dir / "big", 0);

  // Read apart from the loop: bytes the kernel already holds raise no event on it.
  std::string stream;
  std::atomic<bool> ended = false;
  std::thread reader([&] {
    char buffer[65536];
    for (ssize_t n; (n = recv(stuck, buffer, sizeof buffer, 0)) > 0;) stream.append(buffer, n);
    ended = true;
  });
  const bool endedInTime = Eventually([&] { return ended.load(); });
  if (!endedInTime) shutdown(stuck, SHUT_RDWR);
  reader.join();
  ASSERT_TRUE(endedInTime) << stream.size() << " bytes";
  close(stuck);
  MessageFeeder feeder;
  size_t whole = 0;
  feeder.Feed(stream, [&](typMessage&& piece) {
    if (piece.MsgType != "FILE") return;  // the server's INFO
    long long first = -1, last = -1;
    ASSERT_EQ(
        sscanf(GetSingleField(piece.Fields, "Content-Range").c_str(), "%lld-%lld", &first, &last),
        2);
    EXPECT_TRUE(piece.Body ==
                content.substr(static_cast<size_t>(first), static_cast<size_t>(last - first + 1)))
        << first;
    ++whole;
  });
  EXPECT_GT(whole, 0u);
  EXPECT_TRUE(feeder.InProgress()) << "the stream should end inside the cut piece";
  EXPECT_LT(stream.size(), content.size());
  ASSERT_TRUE(Eventually([&] { return !server.errors.empty(); }));
  EXPECT_NE(server.errors.front().find("cut short"), std::string::npos) << server.errors.front();
  fs::remove_all(dir);
}

// A folder for files too large to write out: sparse, in memory when /dev/shm
// is there.
struct LargeFolder {
  fs::path dir;
  LargeFolder() {
    std::error_code ec;
    const fs::path base = fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm")
                                                            : fs::temp_directory_path();
    dir = base / ("qel_large_" + std::to_string(std::random_device()()));
    fs::create_directories(dir);
  }
  ~LargeFolder() { fs::remove_all(dir); }
  // A file of size bytes, all zeros but for what is written at offsets;
  // false when the file system refuses the size.
  bool Make(const std::string& name, int64_t size,
            const std::vector<std::pair<int64_t, std::string>>& writes = {}) {
    std::error_code ec;
    std::ofstream(dir / name).close();
    fs::resize_file(dir / name, static_cast<uintmax_t>(size), ec);
    if (ec) return false;
    clsFileIO2 file;
    if (!file.openFile((dir / name).string(), false)) return false;
    for (const auto& [offset, bytes] : writes) {
      file.filePos(offset + 1);
      file.writeChunk(bytes);
    }
    return true;
  }
};

// Sizes and offsets past 2 and 4 GiB travel whole: the size a node answers,
// the ranges asked for and the Content-Range of each piece.
TEST(LargeFileTest, SizesAndRangesPastFourGiB) {
  constexpr int64_t k2G = int64_t{1} << 31, k4G = int64_t{1} << 32;
  constexpr int64_t kSize = (int64_t{5} << 30) + 123;
  LargeFolder folder;
  if (!folder.Make("huge.bin", kSize,
                   {{k2G + 3, "past two"}, {k4G - 4, "across four"}, {kSize - 7, "the end"}})) {
    GTEST_SKIP() << "the file system holds no sparse file of 5 GiB";
  }
  Peer server("server", "", true), asker("asker", Settings("Timeout=10000"));
  server.node.shareFolder(folder.dir.string());
  asker.ConnectTo(server);
  const typFileInfo info = asker.node.GetFileInfo("\\huge.bin", server.ID());
  EXPECT_EQ(Info(info), std::to_string(kSize) + " ");

  std::map<std::string, Received> got;
  Record(asker, got);
  const std::string size = "/" + std::to_string(kSize) + ":1 ";
  const std::vector<std::tuple<typQELRange, std::string, std::string>> cases = {
      {MakeRange(k2G + 3, k2G + 10), "2147483651-2147483658", "past two"},
      {MakeRange(k4G - 4, k4G + 6), "4294967292-4294967302", "across four"},
      {MakeRange(-1, 7), "5368709236-5368709242", "the end"},
      {MakeRange(kSize - 1000), "5368708243-5368709242", std::string(993, '\0') + "the end"},
      {MakeRange(kSize - 3, k4G * 4), "5368709240-5368709242", "end"},
  };
  std::vector<std::string> ids;
  for (const auto& [range, pieces, data] : cases) {
    ids.push_back(asker.node.RequestFile("\\huge.bin", server.ID(), range));
  }
  ASSERT_TRUE(Eventually([&] {
    return std::all_of(ids.begin(), ids.end(), [&](auto& id) { return got[id].last == FS_Complete; });
  }));
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(got[ids[i]].pieces, std::get<1>(cases[i]) + size) << RangeText(std::get<0>(cases[i]));
    EXPECT_EQ(got[ids[i]].data, std::get<2>(cases[i])) << RangeText(std::get<0>(cases[i]));
  }
  EXPECT_TRUE(asker.errors.empty() && server.errors.empty());
}

// Keeps the worker thread busy until released, so that jobs given after it
// wait; released at the latest when it goes out of scope.
class WorkerGate {
 public:
  WorkerGate() {
    RunOffLoop([seen = open_.get_future().share()]() -> std::function<void()> {
      seen.wait();
      return nullptr;
    });
  }
  ~WorkerGate() { Release(); }
  void Release() {
    if (!released_) open_.set_value();
    released_ = true;
  }

 private:
  std::promise<void> open_;
  bool released_ = false;
};

// Asks server for the hash of path under reqID, through asker's slots.
void AskHash(Peer& asker, Peer& server, const std::string& path, const std::string& reqID) {
  NodeState& state = StateOf(asker.node);
  state.Files.FileInfos.Open(reqID);
  typMessage question = MakeGetFileInfo(path, server.ID(), reqID, false);
  SendPacket(state, question);
}

const FileInfoSlot& Answer(Peer& asker, const std::string& reqID) {
  static const FileInfoSlot kNone;
  const FileInfoSlot* slot = StateOf(asker.node).Files.FileInfos.Find(reqID);
  return slot ? *slot : kNone;
}

// The question for a hash and a ping travel on one link, in that order: a
// node hashing on its loop would answer the hash first. The hash comes
// later, and right.
TEST(FileHashTest, APingIsAnsweredWhileTheServerHashes) {
  LargeFolder folder;
  ASSERT_TRUE(folder.Make("big.bin", int64_t{1} << 30, {{12345, "not only zeros"}}));
  Peer server("server", "", true), asker("asker");
  server.node.shareFolder(folder.dir.string());
  asker.ConnectTo(server);
  ASSERT_EQ(PendingHashJobs(), 0u);
  AskHash(asker, server, "\\big.bin", "H");
  EXPECT_GE(asker.node.Ping(server.ID(), 60000), 0);
  EXPECT_FALSE(Answer(asker, "H").done) << "the hash held the loop: it came before the ping";
  ASSERT_TRUE(RunUntil([&] { return Answer(asker, "H").done; }, 120000));
  const typFileInfo& info = Answer(asker, "H").info;
  EXPECT_EQ(Info(info), "1073741824 " + GetFileHash(folder.dir / "big.bin"));
  EXPECT_EQ(PendingHashJobs(), 0u);
  EXPECT_TRUE(asker.errors.empty() && server.errors.empty());
}

// However many hashes peers ask for, at most kMaxHashJobs wait; the rest
// are answered at once without one. A node gone before its hash is done
// answers nothing, and a file that cannot be read is reported, not answered.
TEST(FileHashTest, HashesWaitingAreBoundedAndGoneNodesAnswerNothing) {
  LargeFolder folder;
  std::ofstream(folder.dir / "abc.txt") << "abc";
  Peer server("server", "", true), asker("asker");
  server.node.shareFolder(folder.dir.string());
  asker.ConnectTo(server);
  ASSERT_EQ(PendingHashJobs(), 0u);
  const int64_t withoutBefore = TheStats().FileInfosWithoutHash;
  constexpr size_t kAsked = kMaxHashJobs + 4;
  {
    WorkerGate gate;
    for (size_t i = 0; i < kAsked; ++i) AskHash(asker, server, "\\abc.txt", std::to_string(i));
    auto answered = [&] {
      size_t n = 0;
      for (size_t i = 0; i < kAsked; ++i) n += Answer(asker, std::to_string(i)).done;
      return n;
    };
    ASSERT_TRUE(Eventually([&] { return answered() == kAsked - kMaxHashJobs; }));
    EXPECT_EQ(PendingHashJobs(), kMaxHashJobs);
    EXPECT_EQ(TheStats().FileInfosWithoutHash - withoutBefore,
              static_cast<int64_t>(kAsked - kMaxHashJobs));
    for (size_t i = kMaxHashJobs; i < kAsked; ++i) {
      EXPECT_EQ(Info(Answer(asker, std::to_string(i)).info), "3 ") << i;
    }
    gate.Release();
    ASSERT_TRUE(Eventually([&] { return answered() == kAsked; }));
  }
  for (size_t i = 0; i < kMaxHashJobs; ++i) {
    EXPECT_EQ(Info(Answer(asker, std::to_string(i)).info), "3 900150983cd24fb0d6963f7d28e17f72")
        << i;
  }
  EXPECT_EQ(PendingHashJobs(), 0u);

  // A node that goes while its hashes wait.
  {
    WorkerGate gate;
    {
      Peer leaving("leaving", "", true);
      leaving.node.shareFolder(folder.dir.string());
      asker.ConnectTo(leaving);
      AskHash(asker, leaving, "\\abc.txt", "gone1");
      AskHash(asker, leaving, "\\abc.txt", "gone2");
      ASSERT_TRUE(Eventually([&] { return PendingHashJobs() == 2; }));
    }
    gate.Release();
    ASSERT_TRUE(Eventually([&] { return PendingHashJobs() == 0; }));
  }
  EXPECT_FALSE(Answer(asker, "gone1").done || Answer(asker, "gone2").done);

  // A file gone before its turn comes is hashed all the same: size and hash
  // come from the one descriptor opened when the question came.
  std::ofstream(folder.dir / "brief.txt") << "soon gone";
  {
    WorkerGate gate;
    AskHash(asker, server, "\\brief.txt", "brief");
    ASSERT_TRUE(Eventually([&] { return PendingHashJobs() == 1; }));
    fs::remove(folder.dir / "brief.txt");
  }
  ASSERT_TRUE(Eventually([&] { return Answer(asker, "brief").done; }));
  EXPECT_EQ(Info(Answer(asker, "brief").info), "9 " + cMD5().MD5("soon gone"));
  EXPECT_TRUE(asker.errors.empty() && server.errors.empty());
}

// A local process swaps a shared file for a link out of the share, and a
// shared folder for one, again and again, while a raw peer asks for them:
// what is served comes from inside the share or is refused, however the
// race falls.
TEST(ConfinedOpenTest, FilesSwappedForLinksOutOfTheShareAreNeverServed) {
  const fs::path base =
      fs::temp_directory_path() / ("qel_swap_" + std::to_string(std::random_device()()));
  fs::create_directories(base / "share/dir");
  fs::create_directories(base / "outside");
  std::ofstream(base / "share/a.txt") << "inside";
  std::ofstream(base / "share/dir/in.txt") << "in";
  const std::string secret = "the outside secret";
  std::ofstream(base / "outside/secret.txt") << secret;
  // Each swap exchanges a name with its twin, a link that leads out.
  fs::create_symlink("../outside/secret.txt", base / "share/.a");
  fs::create_directory_symlink("../outside", base / "share/.dir");
  Peer server("server", "", true);
  server.node.shareFolder((base / "share").string());
  RawPeer raw(server);

  std::atomic<bool> stop = false;
  std::atomic<int> swaps = 0;
  std::thread swapper([&] {
    const std::string share = (base / "share").string();
    while (!stop) {
      for (const char* name : {"a.txt", "dir"}) {
        const std::string here = share + "/" + name,
                          twin = share + "/." + (name[0] == 'a' ? "a" : "dir");
        renameat2(AT_FDCWD, here.c_str(), AT_FDCWD, twin.c_str(), RENAME_EXCHANGE);
      }
      ++swaps;
    }
  });
  constexpr int kRequests = 2000, kBatch = 100;
  int served = 0, listed = 0;
  for (int first = 0; first < kRequests; first += kBatch) {
    for (int i = first; i < first + kBatch; ++i) {
      const std::string n = std::to_string(i);
      raw.socket.Send(Raw("GET", "G" + n, "\\a.txt", "", server.ID()));
      raw.socket.Send(Raw("GET", "D" + n, "\\dir\\secret.txt", "", server.ID()));
      raw.socket.Send(
          Raw("GETFILEINFO", "I" + n, "\\a.txt", Settings("skipHash=False"), server.ID()));
      if (i % 10 == 0) {
        raw.socket.Send(
            Raw("GETCONTENTS", "L" + n, "\\", Settings("SearchSubDirs=True"), server.ID()));
        raw.socket.Send(Raw("GETCONTENTS", "C" + n, "\\dir", "", server.ID()));
      }
    }
    ASSERT_TRUE(Eventually([&] {
      return raw.answers.contains("G" + std::to_string(first + kBatch - 1)) &&
             raw.answers.contains("D" + std::to_string(first + kBatch - 1)) &&
             raw.answers.contains("I" + std::to_string(first + kBatch - 1)) &&
             raw.answers.contains("C" + std::to_string(first + kBatch - 10));
    }));
  }
  stop = true;
  swapper.join();
  for (auto& [reqID, answer] : raw.answers) {
    EXPECT_EQ(answer.Body.find("outside"), std::string::npos) << reqID << ": " << answer.Body;
    EXPECT_EQ(answer.Body.find("secret.txt"), std::string::npos) << reqID << ": " << answer.Body;
    // The secret's size, or its hash, would tell of it too.
    if (reqID[0] == 'I') {
      const std::optional<typFileInfo> info = ReadFileInfo(answer.Body);
      ASSERT_TRUE(info) << answer.Body;
      EXPECT_NE(info->lngSize, static_cast<int64_t>(secret.size())) << reqID;
      EXPECT_NE(info->strHash, cMD5().MD5(secret)) << reqID;
    }
    served += reqID[0] == 'G' && answer.Body == "inside";
    listed += reqID[0] == 'L' && answer.Body.find("in.txt") != std::string::npos;
  }
  // The race ran: files and folders were served while the names flipped.
  EXPECT_GT(served, 0);
  EXPECT_GT(listed, 0);
  EXPECT_GT(swaps.load(), 100);
  fs::remove_all(base);
}

TEST_F(SharingTest, RawPeersReachNothingOutsideTheSharesAndStrayAnswersAreIgnored) {
  RawPeer toShare(b), toNone(a);
  const std::string secret = (base / "secret").string();
  const std::vector<std::pair<Peer*, std::string>> folders = {
      {&b, "\\..\\secret"}, {&b, "%2e%2e\\secret"}, {&b, "\\%2E%2e/secret"},
      {&b, secret},         {&b, "\\out"},          {&a, "\\"},
      {&a, secret}};
  int n = 0;
  for (const auto& [peer, folder] : folders) {
    RawPeer& raw = peer == &b ? toShare : toNone;
    const std::string list = "L" + std::to_string(++n), info = "I" + std::to_string(n),
                      get = "G" + std::to_string(n);
    raw.socket.Send(Raw("GETCONTENTS", list, folder, Settings("SearchSubDirs=True"), peer->ID()));
    raw.socket.Send(
        Raw("GETFILEINFO", info, folder + "/key.txt", Settings("skipHash=False"), peer->ID()));
    raw.socket.Send(Raw("GET", get, folder + "/key.txt", "", peer->ID()));
    ASSERT_TRUE(Eventually([&] {
      return raw.answers.contains(list) && raw.answers.contains(info) && raw.answers.contains(get);
    })) << folder;
    EXPECT_EQ(raw.answers[list].Body, MakeContents("", "", {""}).Body) << folder;
    EXPECT_EQ(raw.answers[info].Body, MakeFileInfo("", "", -1, "").Body) << folder;
    EXPECT_EQ(GetSingleField(raw.answers[get].Fields, "FileStatus") + raw.answers[get].Body, "2")
        << folder;
  }

  // Answers to slots a holds open and to none, with bodies that do not load.
  FileSharing& files = StateOf(a.node).Files;
  files.Contents.Open("C");
  files.FileInfos.Open("F");
  for (const char* type : {"CONTENTS", "FILEINFO", "SEARCHMATCH"}) {
    for (const char* reqID : {"C", "F", "NOBODY"}) {
      toNone.socket.Send(Raw(type, reqID, "", "<Settings><Common><FileSize>1", a.ID()));
    }
  }
  // Answers that end the wait without saying anything: no size, a size
  // that is no number, beyond 64 bits or below -1; then two that are read.
  const std::vector<std::pair<std::string, std::string>> fileInfos = {
      {"", "0 (none)"},
      {"Hash=abc", "0 (none)"},
      {"FileSize=big", "0 (none)"},
      {"FileSize=18446744073709551616", "0 (none)"},
      {"FileSize=-2", "0 (none)"},
      {"FileSize=6442450944 Hash=abc", "6442450944 abc"},
      {"FileSize=0", "0 "},
  };
  for (size_t i = 0; i < fileInfos.size(); ++i) {
    const std::string reqID = "F" + std::to_string(i);
    files.FileInfos.Open(reqID);
    toNone.socket.Send(Raw("FILEINFO", reqID, "", Settings(fileInfos[i].first), a.ID()));
  }
  toNone.socket.Send(Raw("GETFILEINFO", "LAST", "\\", "", a.ID()));
  ASSERT_TRUE(Eventually([&] { return toNone.answers.contains("LAST"); }));
  EXPECT_EQ(files.Contents.Find("C")->listing, Listing{""});
  EXPECT_EQ(Info(files.FileInfos.Find("F")->info), "0 (none)");
  EXPECT_TRUE(files.Contents.Find("C")->done && files.FileInfos.Find("F")->done);
  for (size_t i = 0; i < fileInfos.size(); ++i) {
    const FileInfoSlot* slot = files.FileInfos.Find("F" + std::to_string(i));
    ASSERT_TRUE(slot && slot->done) << fileInfos[i].first;
    EXPECT_EQ(Info(slot->info), fileInfos[i].second) << fileInfos[i].first;
  }
  EXPECT_TRUE(a.errors.empty() && b.errors.empty());
  // However many calls wait at once, the table keeps the newest kLimit slots.
  for (size_t i = 0; i < RequestSlots<ContentsSlot>::kLimit; ++i) {
    files.Contents.Open(std::to_string(i));
  }
  EXPECT_TRUE(files.Contents.size() == RequestSlots<ContentsSlot>::kLimit &&
              !files.Contents.Find("C"));
}

}  // namespace
}  // namespace qel::test
