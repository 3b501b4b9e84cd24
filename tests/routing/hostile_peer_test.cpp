// A peer that sends what no node would: the node drops or disconnects it and
// carries on.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

#include <qel/qel.h>

#include "net/event_loop.h"
#include "net/socket.h"
#include "protocol/body.h"
#include "protocol/message.h"

namespace qel {
namespace {

constexpr int64_t kDeadlineMs = 10000;

struct Target {
  cQEL node;
  std::vector<std::string> errors, messages;
  int closed = 0, accepted = 0;
  explicit Target(const std::string& advancedSettings = "") {
    node.Error = [this](std::string& text, std::string&) { errors.push_back(text); };
    node.MessageReceived = [this](std::string& text, std::string&, std::string&) {
      messages.push_back(text);
    };
    node.ConnectionClosed = [this](std::string&, std::string&) { ++closed; };
    node.ConnectionEstab = [this](std::string&) { ++accepted; };
    node.Initialise("target", 0, role_Peer, "", "", advancedSettings);
    EXPECT_TRUE(node.Listen());
  }
};

// A raw TCP peer of the target.
struct RawPeer {
  Socket socket;
  bool connected = false, closedByNode = false;
  explicit RawPeer(Target& target) {
    socket.SetHandlers({.onConnected = [this] { connected = true; },
                        .onPeerClosed = [this] { closedByNode = true; }});
    const int before = target.accepted;
    socket.Connect("127.0.0.1", static_cast<uint16_t>(target.node.ListenPort()));
    EXPECT_TRUE(RunUntil([&] { return connected && target.accepted > before; }, kDeadlineMs));
  }
};

std::string Message(const std::string& body, const std::string& extraFields = "",
                    const std::string& id = "", int ttl = 1) {
  static int counter = 0;
  return "MSG  QEL/2.1\r\nDestination: BROADCAST\r\nSource: RAW\r\nTTL: " + std::to_string(ttl) +
         "\r\nID: RAW" + (id.empty() ? std::to_string(++counter) : id) + "\r\n" + extraFields +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(HostilePeerTest, OverlongHeaderOrBodyClosesOnlyThatConnection) {
  Target target;
  RawPeer calm(target);
  RawPeer rude(target);
  rude.socket.Send(std::string(70000, 'x'));
  ASSERT_TRUE(RunUntil([&] { return rude.closedByNode && target.closed == 1; }, kDeadlineMs));
  ASSERT_EQ(target.errors.size(), 1u);
  EXPECT_NE(target.errors[0].find("header longer than 65536 bytes"), std::string::npos);

  RawPeer greedy(target);
  greedy.socket.Send("MSG  QEL/2.1\r\nContent-Length: 67108865\r\n\r\n");
  ASSERT_TRUE(RunUntil([&] { return greedy.closedByNode && target.closed == 2; }, kDeadlineMs));
  EXPECT_NE(target.errors.back().find("message longer than 67108864 bytes"), std::string::npos);

  calm.socket.Send(Message("still here"));
  ASSERT_TRUE(RunUntil([&] { return target.messages.size() == 1; }, kDeadlineMs));
  EXPECT_FALSE(calm.closedByNode);
}

TEST(HostilePeerTest, UndecodableBodiesAreDroppedAndTheConnectionStays) {
  Target target;
  RawPeer peer(target), watcher(target);
  std::string relayed;
  watcher.socket.SetHandlers({.onData = [&](std::string_view d) { relayed.append(d); }});
  std::string packed = "payload";
  CompressBody(packed);
  peer.socket.Send(Message(packed, "Flags: Z,\r\nOriginal-Length: 99999999999\r\n"));
  peer.socket.Send(Message("not zlib at all", "Flags: Z,\r\nOriginal-Length: 10\r\n"));
  peer.socket.Send(Message(packed, "Flags: Z,\r\nOriginal-Length: 7\r\n"));
  ASSERT_TRUE(RunUntil([&] { return target.messages.size() == 1; }, kDeadlineMs));
  EXPECT_EQ(target.messages[0], "payload");
  ASSERT_EQ(target.errors.size(), 2u);
  EXPECT_NE(target.errors[0].find("original length is above"), std::string::npos);
  EXPECT_NE(target.errors[1].find("does not decompress"), std::string::npos);

  // Not delivered here, but relayed as it came.
  peer.socket.Send(
      Message("not zlib either", "Flags: Z,\r\nOriginal-Length: 10\r\n", "CORRUPT", 2));
  ASSERT_TRUE(
      RunUntil([&] { return relayed.find("not zlib either") != std::string::npos; }, kDeadlineMs));
  EXPECT_NE(relayed.find("ID: RAWCORRUPT"), std::string::npos);
  EXPECT_EQ(target.errors.size(), 3u);
  target.errors.pop_back();

  // A resource that does not decode is reported, and the message still counts.
  peer.socket.Send(
      "MSG %zz QEL/2.1\r\nDestination: BROADCAST\r\nSource: RAW\r\nTTL: 1\r\n"
      "ID: RAWRES\r\nContent-Length: 5\r\n\r\nafter");
  ASSERT_TRUE(RunUntil([&] { return target.messages.size() == 2; }, kDeadlineMs));
  EXPECT_EQ(target.messages[1], "after");
  ASSERT_EQ(target.errors.size(), 3u);
  EXPECT_EQ(target.errors[2], "Error 13: Type mismatch");
  EXPECT_FALSE(peer.closedByNode);
}

TEST(HostilePeerTest, APeerThatStopsReadingIsCutOffOnceItsQueueIsFull) {
  cSettings small;
  small.SaveSetting("maxMessage", 100000);
  Target target(small.getXML());
  RawPeer calm(target);
  size_t calmBytes = 0;
  calm.socket.SetHandlers({.onData = [&](std::string_view d) { calmBytes += d.size(); },
                           .onPeerClosed = [&] { calm.closedByNode = true; }});

  // Connects and never reads, with a small receive window.
  int stuck = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(stuck, 0);
  int window = 4096;
  setsockopt(stuck, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
  sockaddr_in to{.sin_family = AF_INET, .sin_port = htons(target.node.ListenPort())};
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(stuck, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
  ASSERT_TRUE(RunUntil([&] { return target.accepted == 2; }, kDeadlineMs));

  const std::string chunk(50000, 'z');
  for (int i = 0; i < 2000 && target.errors.empty(); ++i) {
    target.node.SendMessage(chunk, "BROADCAST");
    DoEvents(0);
  }
  ASSERT_TRUE(RunUntil([&] { return target.closed == 1; }, kDeadlineMs)) << target.errors.size();
  ASSERT_EQ(target.errors.size(), 1u);
  EXPECT_TRUE(
      target.errors[0].starts_with("Connection to 127.0.0.1 closed: more than 265536 "
                                   "bytes waiting to be sent"))
      << target.errors[0];
  close(stuck);

  // The reader was never held back and still gets what follows.
  const size_t before = calmBytes;
  target.node.SendMessage("after", "BROADCAST");
  ASSERT_TRUE(RunUntil([&] { return calmBytes > before; }, kDeadlineMs));
  EXPECT_FALSE(calm.closedByNode);
}

TEST(HostilePeerTest, StalledSendersAreClosedAndIdlePeersStay) {
  cSettings settings;
  settings.SaveSetting("stallTimeout", 200);
  Target target(settings.getXML());
  RawPeer idle(target), halfHeader(target), halfBody(target);
  halfHeader.socket.Send("MSG  QEL/2.1\r\nDestinat");
  halfBody.socket.Send(Message("0123456789").substr(0, Message("0123456789").size() - 4));
  ASSERT_TRUE(
      RunUntil([&] { return halfHeader.closedByNode && halfBody.closedByNode; }, kDeadlineMs));
  ASSERT_EQ(target.errors.size(), 2u);
  EXPECT_NE(target.errors[0].find("nothing received for 200 ms in the middle of a message"),
            std::string::npos)
      << target.errors[0];
  // Idle for as long, but with nothing half sent: still served.
  idle.socket.Send(Message("still here"));
  ASSERT_TRUE(RunUntil([&] { return target.messages.size() == 1; }, kDeadlineMs));
  EXPECT_FALSE(idle.closedByNode);
}

TEST(HostilePeerTest, BodiesPastTheMemoryBudgetCloseTheLargestHolder) {
  cSettings settings;
  settings.SaveSetting("memoryBudget", 1 << 20);
  Target target(settings.getXML());
  RawPeer small(target), large(target);
  small.socket.Send(Message(std::string(300000, 's')).substr(0, 200000));
  const std::string big = Message(std::string(3 << 20, 'b'));
  large.socket.Send(big.substr(0, 2 << 20));
  ASSERT_TRUE(RunUntil([&] { return large.closedByNode; }, kDeadlineMs));
  ASSERT_FALSE(target.errors.empty());
  EXPECT_NE(target.errors[0].find("more than memoryBudget (1048576)"), std::string::npos)
      << target.errors[0];
  // The smaller holder was spared and completes its message.
  small.socket.Send(Message(std::string(300000, 's')).substr(200000));
  ASSERT_TRUE(RunUntil([&] { return target.messages.size() == 1; }, kDeadlineMs));
  EXPECT_FALSE(small.closedByNode);
}

TEST(HostilePeerTest, ConnectionsPastMaxConnectionsAreRefusedAndSaidOnce) {
  cSettings settings;
  settings.SaveSetting("maxConnections", 2);
  Target target(settings.getXML());
  RawPeer first(target), second(target);
  std::vector<std::unique_ptr<Socket>> extra;
  int refused = 0;
  for (int i = 0; i < 3; ++i) {
    auto& s = *extra.emplace_back(std::make_unique<Socket>());
    s.SetHandlers({.onPeerClosed = [&] { ++refused; }});
    s.Connect("127.0.0.1", static_cast<uint16_t>(target.node.ListenPort()));
  }
  ASSERT_TRUE(RunUntil([&] { return refused == 3; }, kDeadlineMs));
  ASSERT_EQ(target.errors.size(), 1u);
  EXPECT_EQ(target.errors[0],
            "Connection from 127.0.0.1 refused: 2 connections are open "
            "(maxConnections)");
  EXPECT_EQ(target.accepted, 2);
  first.socket.Send(Message("served"));
  ASSERT_TRUE(RunUntil([&] { return target.messages.size() == 1; }, kDeadlineMs));
}

TEST(HostilePeerTest, MessagesBehindAWaitingHandlerQueueInsteadOfNesting) {
  cSettings settings;
  settings.SaveSetting("Timeout", 20);
  Target target(settings.getXML());
  int active = 0, deepest = 0;
  std::vector<std::string> order;
  target.node.MessageReceived = [&](std::string& text, std::string&, std::string&) {
    order.push_back(text);
    deepest = std::max(deepest, ++active);
    target.node.GetNodeInfo("NOBODY", false);  // waits Timeout, running the loop
    --active;
  };
  RawPeer peer(target);
  std::string burst;
  for (int i = 0; i < 12; ++i) burst += Message(std::to_string(i));
  peer.socket.Send(burst);
  ASSERT_TRUE(RunUntil([&] { return order.size() == 12 && active == 0; }, kDeadlineMs));
  // One level for answers the waiting handler may need; never one per message.
  EXPECT_LE(deepest, 2);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(order[i], std::to_string(i));
}

TEST(HostilePeerTest, RandomBytesNeverBringTheNodeDown) {
  Target target;
  const uint32_t seed = 20261123;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  const std::string valid = Message("hello", "", "VALID");
  for (int round = 0; round < 20; ++round) {
    RawPeer peer(target);
    std::string noise;
    for (int i = 0; i < 4000; ++i) {
      // Mostly header-ish characters, so parsing gets past the first line.
      const char alphabet[] = "\r\n: ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789%-,";
      noise.push_back(rng() % 4 ? alphabet[rng() % (sizeof alphabet - 1)]
                                : static_cast<char>(rng()));
      if (rng() % 500 == 0) noise += valid.substr(0, rng() % valid.size());
    }
    peer.socket.Send(noise);
    peer.socket.Close();
    DoEvents(1);
  }
  RawPeer last(target);
  last.socket.Send(Message("after the storm"));
  ASSERT_TRUE(RunUntil(
      [&] { return !target.messages.empty() && target.messages.back() == "after the storm"; },
      kDeadlineMs));
}

}  // namespace
}  // namespace qel
