// A node's snapshot against what two nodes of one process really exchanged.
#include <qel/snapshot.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "../support/peers.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

const RefusalSnapshot& Refusals(const NodeSnapshot& shot, const std::string& reason) {
  for (const RefusalSnapshot& r : shot.refusals) {
    if (r.reason == reason) return r;
  }
  static const RefusalSnapshot none;
  ADD_FAILURE() << "no refusal named " << reason;
  return none;
}

// What both ends say went over their one link agrees, whatever is still in flight.
bool Settled(Peer& x, Peer& y) {
  const NodeSnapshot a = x.node.Snapshot(), b = y.node.Snapshot();
  return a.messagesSent == b.messagesReceived && a.bytesSent == b.bytesReceived &&
         b.messagesSent == a.messagesReceived && b.bytesSent == a.bytesReceived;
}

TEST(SnapshotTest, BothEndsCountTheSameExchangeAndKeepItPastTheLink) {
  Peer a("a", Settings("maxConnections=1"), true);
  Peer b("b");
  b.ConnectTo(a);
  ASSERT_TRUE(Eventually([&] { return b.Knows(a.ID()) && Settled(a, b); }));
  const NodeSnapshot a0 = a.node.Snapshot(), b0 = b.node.Snapshot();

  constexpr int kEachWay = 25;
  for (int i = 0; i < kEachWay; ++i) {
    a.node.SendMessage("from a " + std::to_string(i), b.ID());
    b.node.SendMessage("from b " + std::string(static_cast<size_t>(i) * 100, 'x'), a.ID());
  }
  ASSERT_TRUE(Eventually([&] {
    return a.messages.size() == kEachWay && b.messages.size() == kEachWay && Settled(a, b);
  }));
  const NodeSnapshot sa = a.node.Snapshot(), sb = b.node.Snapshot();
  EXPECT_EQ(sa.messagesReceived - a0.messagesReceived, kEachWay);
  EXPECT_EQ(sa.messagesSent - a0.messagesSent, kEachWay);
  EXPECT_EQ(sb.messagesReceived - b0.messagesReceived, kEachWay);
  EXPECT_EQ(sb.messagesSent - b0.messagesSent, kEachWay);
  // b's messages are larger by 100 bytes a message on average over the run.
  EXPECT_GT(sb.bytesSent - b0.bytesSent, sa.bytesSent - a0.bytesSent + 1000);

  ASSERT_EQ(sa.links.size(), 1u);
  ASSERT_EQ(sb.links.size(), 1u);
  const LinkSnapshot &la = sa.links[0], &lb = sb.links[0];
  EXPECT_TRUE(la.accepted);
  EXPECT_FALSE(lb.accepted);
  EXPECT_TRUE(la.up && lb.up);
  EXPECT_FALSE(la.secure || lb.secure);
  EXPECT_EQ(la.nodeID, b.ID());
  EXPECT_EQ(lb.nodeID, a.ID());
  EXPECT_EQ(lb.address, a.Address());
  // One link each: the node's totals are its link's figures.
  EXPECT_EQ(la.messagesIn, sa.messagesReceived);
  EXPECT_EQ(la.bytesOut, sa.bytesSent);
  EXPECT_EQ(lb.messagesOut, sb.messagesSent);
  EXPECT_EQ(lb.bytesIn, sb.bytesReceived);
  EXPECT_EQ(sa.name, "a");
  EXPECT_EQ(sa.nodeID, a.ID());
  EXPECT_EQ(sa.port, a.Port());
  EXPECT_TRUE(sa.listening);
  EXPECT_EQ(sa.secureMode, "off");

  ASSERT_EQ(sa.knownNodes.size(), 1u);
  EXPECT_EQ(sa.knownNodes[0].nodeID, b.ID());
  EXPECT_EQ(sa.knownNodes[0].name, "b");
  EXPECT_TRUE(sa.knownNodes[0].direct);
  EXPECT_LE(sa.knownNodes[0].secondsSinceInfo, 10);
  ASSERT_EQ(sb.knownNodes.size(), 1u);
  EXPECT_EQ(sb.knownNodes[0].nodeID, a.ID());

  // a takes one connection: a third node is refused, counted for a alone.
  Peer c("c");
  const int64_t processBefore = Refusals(sa, "connections").process;
  c.node.Connect(a.Address());
  ASSERT_TRUE(Eventually([&] { return Refusals(a.node.Snapshot(), "connections").node == 1; }));
  const NodeSnapshot refused = a.node.Snapshot();
  EXPECT_EQ(Refusals(refused, "connections").process, processBefore + 1);
  EXPECT_EQ(Refusals(b.node.Snapshot(), "connections").node, 0);
  EXPECT_EQ(Refusals(b.node.Snapshot(), "connections").process, processBefore + 1);

  // The link goes, and its elements serve new links: the totals stay.
  b.node.DisconnectAll();
  ASSERT_TRUE(Eventually([&] { return a.node.Snapshot().links.empty(); }));
  c.ConnectTo(a);
  c.node.SendMessage("again", a.ID());
  ASSERT_TRUE(Eventually([&] { return a.messages.size() == kEachWay + 1; }));
  const NodeSnapshot after = a.node.Snapshot(), bAfter = b.node.Snapshot();
  EXPECT_GE(after.messagesReceived, sa.messagesReceived + 1);
  EXPECT_GE(after.bytesSent, sa.bytesSent);
  EXPECT_TRUE(bAfter.links.empty());
  EXPECT_EQ(bAfter.messagesSent, sb.messagesSent);
  EXPECT_EQ(bAfter.bytesReceived, sb.bytesReceived);
}

// b fetches a file from a while a raw reader asks a for the same file and reads slowly.
TEST(SnapshotTest, TransfersShowBothWaysWithTheirProgress) {
  const fs::path base =
      fs::temp_directory_path() / ("qel_snapshot_" + std::to_string(std::random_device()()));
  fs::create_directories(base / "share");
  constexpr size_t kSize = 16 << 20;
  std::ofstream(base / "share" / "big.bin", std::ios::binary) << std::string(kSize, 'q');
  Peer a("a", Settings("filePacket=64"), true);
  a.node.shareFolder((base / "share").string());
  Peer b("b");
  b.ConnectTo(a);

  // Each progress event of the fetch is matched against b's snapshot there and then.
  int matched = 0;
  b.node.FetchProgress = [&](std::string& id, int64_t& done, int64_t& total) {
    for (const TransferSnapshot& t : b.node.Snapshot().transfers) {
      if (t.reqID != id) continue;
      EXPECT_TRUE(t.incoming);
      EXPECT_EQ(t.nodeID, a.ID());
      EXPECT_EQ(t.path, "\\big.bin");
      EXPECT_EQ(t.bytesDone, done);
      EXPECT_EQ(t.bytesTotal, total);
      ++matched;
    }
  };
  bool finished = false;
  b.node.FetchFinished = [&](std::string&, enmFileStatus& status, std::string&) {
    EXPECT_EQ(status, FS_Complete);
    finished = true;
  };
  b.node.FetchFile(a.ID(), "\\big.bin", (base / "got.bin").string());
  ASSERT_TRUE(Eventually([&] { return finished; }));
  EXPECT_GE(matched, 1);
  EXPECT_TRUE(b.node.Snapshot().transfers.empty());

  // The reader stops reading: a's transfer to it waits, part done, until it reads on.
  const int fd = Dial(a.Port());
  const std::string get = "GET \\big.bin QEL/2.1\r\nDestination: " + a.ID() +
                          "\r\nSource: RAW\r\nReqID: R1\r\nID: G1\r\n\r\n";
  ASSERT_EQ(send(fd, get.data(), get.size(), 0), static_cast<ssize_t>(get.size()));
  auto served = [&] {
    for (const TransferSnapshot& t : a.node.Snapshot().transfers) {
      if (t.reqID == "R1") return t;
    }
    return TransferSnapshot{};
  };
  ASSERT_TRUE(Eventually([&] { return served().bytesDone > 0; }));
  const TransferSnapshot first = served();
  EXPECT_FALSE(first.incoming);
  EXPECT_EQ(first.nodeID, "RAW");
  EXPECT_EQ(first.path, "\\big.bin");
  EXPECT_EQ(first.bytesTotal, static_cast<int64_t>(kSize));
  EXPECT_LT(first.bytesDone, first.bytesTotal);
  EXPECT_GT(first.bytesPerSecond, 0);
  std::string buffer(1 << 20, '\0');
  ASSERT_TRUE(Eventually([&] {
    // The reader takes what the kernel holds for it, never waiting for more.
    while (recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
    }
    return served().bytesDone > first.bytesDone;
  }));
  close(fd);
  fs::remove_all(base);
}

}  // namespace
}  // namespace qel::test
