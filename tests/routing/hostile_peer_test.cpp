// Raw peers against a node: it relays changing only TTL, Hops and Route, and
// what no node would send it drops or disconnects, and carries on.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "../support/peers.h"
#include "core/log.h"
#include "core/stats.h"
#include "net/links.h"
#include "protocol/body.h"

namespace qel::test {
namespace {

std::string Message(const std::string& body, const std::string& fields = "") {
  static int counter = 0;
  return RawMsg("RAW" + std::to_string(++counter), "TTL: 1\r\n" + fields, body);
}

bool Has(const std::vector<std::string>& lines, size_t at, const std::string& part) {
  return at < lines.size() && lines[at].find(part) != std::string::npos;
}

TEST(HostilePeerTest, OverlongHeaderOrBodyClosesOnlyThatConnection) {
  Peer target("target", "", true);
  RawPeer calm(target), rude(target), greedy(target);
  const uint16_t rudePort = rude.socket.LocalPort();
  rude.socket.Send(std::string(70000, 'x'));
  ASSERT_TRUE(Eventually([&] { return rude.closedByNode && target.closed.size() == 1; }));
  EXPECT_TRUE(Has(target.errors, 0, "header longer than 65536 bytes"));
  // A peer that never said where it listens is named by the port it came from.
  EXPECT_EQ(target.closed[0], "127.0.0.1:" + std::to_string(rudePort));
  greedy.socket.Send("MSG  QEL/2.1\r\nContent-Length: 67108865\r\n\r\n");
  ASSERT_TRUE(Eventually([&] { return greedy.closedByNode && target.closed.size() == 2; }));
  EXPECT_TRUE(Has(target.errors, 1, "message longer than 67108864 bytes"));

  calm.socket.Send(Message("still here"));
  ASSERT_TRUE(Eventually([&] { return target.messages.size() == 1; }));
  EXPECT_FALSE(calm.closedByNode);
}

TEST(HostilePeerTest, UndecodableBodiesAreDroppedAndTheConnectionStays) {
  Peer target("target", "", true);
  RawPeer peer(target), watcher(target);
  std::string packed = "payload";
  CompressBody(packed);
  peer.socket.Send(Message(packed, "Flags: Z,\r\nOriginal-Length: 99999999999\r\n"));
  peer.socket.Send(Message("not zlib at all", "Flags: Z,\r\nOriginal-Length: 10\r\n"));
  peer.socket.Send(Message(packed, "Flags: Z,\r\nOriginal-Length: 7\r\n"));
  // Not delivered here, but relayed as it came.
  peer.socket.Send(RawMsg("CORRUPT", "TTL: 2\r\nFlags: Z,\r\nOriginal-Length: 10\r\n", "nor this"));
  // Decryption cannot fail, but an INFO that is garbage once decrypted shows
  // a pass phrase that is not this node's.
  std::string info = "<Settings>\r\n  <Common>\r\n    <Name>x</Name>\r\n  </Common>\r\n</Settings>";
  EncryptBody(info, "not the target's pass");
  peer.socket.Send(
      "INFO  QEL/2.1\r\nDestination: BROADCAST\r\nSource: RAW\r\nTTL: 1\r\n"
      "Flags: NE,\r\nID: RAWINFO\r\nContent-Length: " +
      std::to_string(info.size()) + "\r\n\r\n" + info);
  // A resource that does not decode is reported, and the message still counts.
  peer.socket.Send(
      "MSG %zz QEL/2.1\r\nDestination: BROADCAST\r\nSource: RAW\r\nTTL: 1\r\n"
      "ID: RAWRES\r\nContent-Length: 5\r\n\r\nafter");
  ASSERT_TRUE(Eventually([&] { return target.messages.size() == 2 && watcher.Got("CORRUPT"); }));
  EXPECT_EQ(target.messages, (std::vector<std::string>{"payload", "after"}));
  EXPECT_EQ(watcher.got["CORRUPT"].Body, "nor this");
  ASSERT_EQ(target.errors.size(), 5u);
  EXPECT_TRUE(Has(target.errors, 0, "original length is above"));
  EXPECT_TRUE(Has(target.errors, 1, "does not decompress"));
  EXPECT_TRUE(Has(target.errors, 2, "does not decompress"));
  EXPECT_EQ(target.errors[3],
            "Message RAWINFO from RAW dropped: its body is garbage once decrypted: the sender's "
            "netPass is not this node's");
  EXPECT_FALSE(target.Knows("RAW"));
  EXPECT_EQ(target.errors[4], "Error 13: Type mismatch");
  EXPECT_FALSE(peer.closedByNode);
}

TEST(HostilePeerTest, ClosedLinksAreNamedWithThePortTheyWereKnownBy) {
  Peer target("target", "", true);
  RawPeer vague(target), exact(target);
  // One advertises an address without a port, the other with one.
  auto info = [](const std::string& source, const std::string& address) {
    const std::string body = "<Settings>\r\n  <Common>\r\n    <Address>" + address +
                             "</Address>\r\n  </Common>\r\n</Settings>";
    return "INFO  QEL/2.1\r\nDestination: BROADCAST\r\nSource: " + source +
           "\r\nTTL: 1\r\nHops: 0\r\nID: I" + source +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  };
  vague.socket.Send(info("VAGUE", "127.0.0.1"));
  exact.socket.Send(info("EXACT", "10.1.2.3:4711"));
  ASSERT_TRUE(Eventually([&] { return target.Knows("VAGUE") && target.Knows("EXACT"); }));
  const std::string vaguePort = std::to_string(vague.socket.LocalPort());
  vague.socket.Close();
  ASSERT_TRUE(Eventually([&] { return target.closed.size() == 1; }));
  exact.socket.Close();
  ASSERT_TRUE(Eventually([&] { return target.closed.size() == 2; }));
  EXPECT_EQ(target.closed, (std::vector<std::string>{"127.0.0.1:" + vaguePort, "127.0.0.1:4711"}));
}

TEST(HostilePeerTest, APeerThatStopsReadingIsCutOffOnceItsQueueIsFull) {
  Peer target("target", Settings("maxMessage=100000"), true);
  RawPeer calm(target);
  const int stuck = Dial(target.Port(), 4096);  // connects and never reads
  ASSERT_TRUE(Eventually([&] { return target.established.size() == 2; }));

  const std::string chunk(50000, 'z');
  for (int i = 0; i < 2000 && target.errors.empty(); ++i) {
    target.node.SendMessage(chunk, "BROADCAST");
    DoEvents(0);
  }
  ASSERT_TRUE(Eventually([&] { return target.closed.size() == 1; }));
  ASSERT_EQ(target.errors.size(), 1u);
  EXPECT_TRUE(target.errors[0].starts_with("Connection to " + target.closed[0] +
                                           " closed: more than 265536 bytes waiting to be sent"))
      << target.errors[0];
  close(stuck);

  // The reader was never held back and still gets what follows.
  target.node.SendMessage("after", "BROADCAST");
  ASSERT_TRUE(Eventually([&] {
    return std::ranges::any_of(calm.got, [](const auto& m) { return m.second.Body == "after"; });
  }));
  EXPECT_FALSE(calm.closedByNode);
}

TEST(HostilePeerTest, AWriterWaitingForTheQueueIsWokenWhenThePeerReadsOrTheLinkCloses) {
  Peer target("target", "", true);
  const int slow = Dial(target.Port(), 4096);
  ASSERT_TRUE(Eventually([&] { return target.established.size() == 1; }));
  const std::vector<LinkId> up = links::UpLinks(StateOf(target.node));
  ASSERT_EQ(up.size(), 1u);
  const LinkId conn = up[0];
  links::Write(conn, std::string(8 << 20, 'x'));
  int woken = 0;
  links::WhenDrained(conn, 1 << 20, [&] { ++woken; });
  RunUntil([] { return false; }, 100);
  EXPECT_EQ(woken, 0) << "woken while the peer read nothing";
  char buffer[65536];
  ASSERT_TRUE(Eventually([&] {
    while (recv(slow, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
    return woken == 1;
  }));
  links::Write(conn, std::string(8 << 20, 'y'));
  links::WhenDrained(conn, 1 << 20, [&] { ++woken; });
  close(slow);
  ASSERT_TRUE(Eventually([&] { return woken == 2; }));
  EXPECT_FALSE(links::IsUp(conn));
}

TEST(HostilePeerTest, StalledSendersAreClosedAndIdlePeersStay) {
  Peer target("target", Settings("stallTimeout=200"), true);
  RawPeer idle(target), halfHeader(target), halfBody(target);
  halfHeader.socket.Send("MSG  QEL/2.1\r\nDestinat");
  const std::string whole = Message("0123456789");
  halfBody.socket.Send(whole.substr(0, whole.size() - 4));
  ASSERT_TRUE(Eventually([&] { return halfHeader.closedByNode && halfBody.closedByNode; }));
  ASSERT_EQ(target.errors.size(), 2u);
  EXPECT_TRUE(Has(target.errors, 0, "nothing received for 200 ms in the middle of a message"));
  // Idle for as long, but with nothing half sent: still served.
  idle.socket.Send(Message("still here"));
  ASSERT_TRUE(Eventually([&] { return target.messages.size() == 1; }));
  EXPECT_FALSE(idle.closedByNode);
}

// What the nodes log while it lives, at level and above; logging is off again after it.
struct LogCapture {
  struct Line {
    LogLevel level;
    std::string node, text;
  };
  std::vector<Line> lines;
  explicit LogCapture(LogLevel level) {
    SetLogSink([this](LogLevel at, std::string_view node, std::string_view text) {
      lines.push_back({at, std::string(node), std::string(text)});
    });
    SetLogLevel(level);
  }
  ~LogCapture() {
    SetLogLevel(LogLevel::Off);
    SetLogSink({});
  }
  size_t Count(LogLevel level, const std::string& part) const {
    return std::count_if(lines.begin(), lines.end(), [&](const Line& l) {
      return l.level == level && l.text.find(part) != std::string::npos;
    });
  }
};

TEST(HostilePeerTest, TheLogNamesTheNodePeerAndLimitOfACloseAndIsSilentBelowItsLevel) {
  LogCapture log(LogLevel::Warn);
  const auto& lines = log.lines;
  Peer target("target", Settings("stallTimeout=200"), true);
  RawPeer early(target), late(target);
  early.socket.Send("MSG  QEL/2.1\r\nDestinat");
  ASSERT_TRUE(Eventually([&] { return early.closedByNode; }));
  int formatted = 0;
  Log(LogLevel::Info, "target", [&] { return std::to_string(++formatted); });
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(lines.empty());

  SetLogLevel(LogLevel::Info);
  const uint16_t latePort = late.socket.LocalPort();
  late.socket.Send("MSG  QEL/2.1\r\nDestinat");
  ASSERT_TRUE(Eventually([&] { return late.closedByNode; }));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, LogLevel::Info);
  EXPECT_EQ(lines[0].node, "target");
  EXPECT_EQ(lines[0].text, "Connection to 127.0.0.1:" + std::to_string(latePort) +
                               " closed: nothing received for 200 ms in the middle of a message"
                               " [refused: stall]");
}

TEST(HostilePeerTest, BodiesPastTheMemoryBudgetCloseTheLargestHolder) {
  Peer target("target", Settings("memoryBudget=1048576"), true);
  RawPeer small(target), large(target);
  const std::string smallMessage = Message(std::string(300000, 's'));
  small.socket.Send(smallMessage.substr(0, 200000));
  large.socket.Send(Message(std::string(3 << 20, 'b')).substr(0, 2 << 20));
  ASSERT_TRUE(Eventually([&] { return large.closedByNode; }));
  EXPECT_TRUE(Has(target.errors, 0, "more than memoryBudget (1048576)"));
  // The smaller holder was spared and completes its message.
  small.socket.Send(smallMessage.substr(200000));
  ASSERT_TRUE(Eventually([&] { return target.messages.size() == 1; }));
  EXPECT_FALSE(small.closedByNode);
}

TEST(HostilePeerTest, ConnectionsPastMaxConnectionsAreRefusedAndSaidOnce) {
  LogCapture log(LogLevel::Debug);
  Peer target("target", Settings("maxConnections=2"), true);
  RawPeer first(target), second(target);
  std::vector<std::unique_ptr<Socket>> extra;
  int refused = 0;
  for (int i = 0; i < 3; ++i) {
    auto& s = *extra.emplace_back(std::make_unique<Socket>());
    s.SetHandlers({.onPeerClosed = [&](const std::error_code&) { ++refused; }});
    s.Connect("127.0.0.1", target.Port());
  }
  ASSERT_TRUE(Eventually([&] { return refused == 3; }));
  EXPECT_EQ(target.errors, (std::vector<std::string>{"Connection from 127.0.0.1 refused: 2 "
                                                     "connections are open (maxConnections)"}));
  EXPECT_EQ(target.established.size(), 2u);
  // The log has each refusal, but a flood of them at info only once.
  EXPECT_EQ(log.Count(LogLevel::Info, "[refused: connections]"), 1u);
  EXPECT_EQ(log.Count(LogLevel::Debug, "[refused: connections]"), 2u);
  first.socket.Send(Message("served"));
  ASSERT_TRUE(Eventually([&] { return target.messages.size() == 1; }));
}

TEST(HostilePeerTest, MessagesBehindAWaitingHandlerQueueInsteadOfNesting) {
  Peer target("target", Settings("Timeout=20"), true);
  int active = 0, deepest = 0;
  target.node.MessageReceived = [&](std::string& text, std::string&, std::string&) {
    target.messages.push_back(text);
    deepest = std::max(deepest, ++active);
    target.node.GetNodeInfo("NOBODY", false);  // waits Timeout, running the loop
    --active;
  };
  RawPeer peer(target);
  std::string burst;
  for (int i = 0; i < 12; ++i) burst += Message(std::to_string(i));
  peer.socket.Send(burst);
  ASSERT_TRUE(Eventually([&] { return target.messages.size() == 12 && active == 0; }));
  // One level for answers the waiting handler may need; never one per message.
  EXPECT_LE(deepest, 2);
  EXPECT_EQ(target.messages, (std::vector<std::string>{"0", "1", "2", "3", "4", "5", "6", "7", "8",
                                                       "9", "10", "11"}));
}

// Messages that wait while the loop reads more one and two levels down keep
// their bytes (ASan: none read once gone).
TEST(HostilePeerTest, MessagesWaitingBehindHandlersKeepTheirBytesWhileTheLoopReadsMore) {
  Peer target("target", Settings("Timeout=20"), true);
  RawPeer peer(target), flood(target);
  ExpectOrderWhileHandlersRunTheLoop(target, [&](bool toFlood, const std::string& tag, int count,
                                                  size_t size) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += Message(tag + std::to_string(i) + std::string(size, '.'));
    (toFlood ? flood : peer).socket.Send(bytes);
  });
}

// Half a large body is read straight into the message; the peer then goes
// and its connection is taken again. Nothing the next reads bring may land
// in the old message (ASan), and the new peer's body arrives whole.
TEST(HostilePeerTest, ALinkThatGoesInTheMiddleOfALargeBodyLeavesNoRoomBehind) {
  Peer target("target", "", true);
  std::string body(1 << 20, '\0');
  for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 13 + i / 4099);
  const std::string whole = Message(body);
  auto& stats = TheStats();
  {
    RawPeer quitter(target);
    const int64_t before = stats.InBytesAcc;
    quitter.socket.Send(whole.substr(0, whole.size() / 2));
    ASSERT_TRUE(Eventually(
        [&] { return stats.InBytesAcc - before >= static_cast<int64_t>(whole.size() / 2); }));
    quitter.socket.Close();
    ASSERT_TRUE(Eventually([&] { return target.closed.size() == 1; }));
  }
  RawPeer next(target);
  for (size_t at = 0; at < whole.size(); at += 100000) {
    next.socket.Send(std::string_view(whole).substr(at, 100000));
    DoEvents(0);
  }
  ASSERT_TRUE(Eventually([&] { return target.messages.size() == 1; }));
  EXPECT_TRUE(target.messages[0] == body);
  EXPECT_TRUE(target.errors.empty());
}

TEST(HostilePeerTest, RandomBytesNeverBringTheNodeDown) {
  Peer target("target", "", true);
  std::mt19937 rng(20261123);
  const std::string valid = RawMsg("VALID", "TTL: 1\r\n", "hello");
  // Mostly header-ish characters, so parsing gets past the first line.
  const char alphabet[] = "\r\n: ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789%-,";
  for (int round = 0; round < 20; ++round) {
    RawPeer peer(target);
    std::string noise;
    for (int i = 0; i < 4000; ++i) {
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
  ASSERT_TRUE(Eventually(
      [&] { return !target.messages.empty() && target.messages.back() == "after the storm"; }));
}

// A node nobody knows, so every message to it is relayed.
constexpr char kNowhere[] = "00000000000000000000000000000000";

std::string Msg(const std::string& id, const std::string& fields, const std::string& body = "x") {
  return RawMsg(id, fields, body, kNowhere);
}

TEST(RelayTest, RelayRewritesOnlyTtlHopsAndRoutePlainOrBesideArrayFields) {
  Peer relay("relay", Settings("TTL=20"), true);
  RawPeer from(relay), to(relay);
  // Each name also arrives as an array; Flags and lengths describe a body the
  // relay does not decode.
  from.socket.Send(Msg("ARRAYS",
                       "TTL: 5\r\nTTL-Max: 3\r\nHops: 2\r\nHops-Max: 3\r\nRoute: R1,\r\n"
                       "Route-Max: 3\r\nFlags: Z,\r\nOriginal-Length: 99\r\n",
                       "not really packed"));
  // Plain ones go out as splices of their own bytes, fields in any order;
  // absent Hops and Route are added at the end, as a full rewrite adds them.
  from.socket.Send(Msg("SPLICED", "Route: R1,\r\nHops: 7\r\nTTL: 3\r\n", "body"));
  from.socket.Send(Msg("BARE", "TTL: 3\r\n"));
  from.socket.Send(Msg("AFTER", "TTL: 2\r\n"));
  ASSERT_TRUE(Eventually([&] { return to.Got("AFTER"); })) << relay.errors.size();
  EXPECT_EQ(SerialiseMessage(to.got["SPLICED"]),
            Msg("SPLICED", "Route: R1," + relay.ID() + ",\r\nHops: 8\r\nTTL: 2\r\n", "body"));
  EXPECT_EQ(SerialiseMessage(to.got["BARE"]),
            std::string("MSG  QEL/2.1\r\nDestination: ") + kNowhere +
                "\r\nSource: RAW\r\nTTL: 2\r\nID: BARE\r\nContent-Length: 1\r\nHops: 1\r\n"
                "Route: " +
                relay.ID() + ",\r\n\r\nx");
  ASSERT_TRUE(to.Got("ARRAYS"));
  EXPECT_EQ(SerialiseMessage(to.got["ARRAYS"]),
            Msg("ARRAYS",
                "TTL: 4\r\nTTL-Max: 3\r\nHops: 3\r\nHops-Max: 3\r\nRoute: R1," + relay.ID() +
                    ",\r\nRoute-Max: 3\r\nFlags: Z,\r\nOriginal-Length: 99\r\n",
                "not really packed"));
  EXPECT_TRUE(relay.errors.empty());
  EXPECT_TRUE(relay.closed.empty());
}

TEST(RelayTest, PeerTtlAndHopsAreBoundedAndNonsenseIsNotRelayed) {
  Peer relay("relay", Settings("TTL=5"), true);
  RawPeer from(relay), to(relay);
  struct Case {
    std::string ttl, hops, relayedTtl, relayedHops;  // relayedTtl "" when not relayed
  };
  const std::vector<Case> cases = {
      {"3", "0", "2", "1"},
      {"2147483648", "9223372036854775806", "4", "9223372036854775807"},
      {"9223372036854775807", "9223372036854775807", "4", "9223372036854775807"},
      {"99999999999999999999", "99999999999999999999", "4", "9223372036854775807"},
      {" +6", "-9223372036854775808", "4", "-9223372036854775807"},
      {"4", "many", "3", "1"},
      {"1", "0", "", ""},
      {"0", "0", "", ""},
      {"-9223372036854775808", "0", "", ""},
      {"-99999999999999999999", "0", "", ""},
      {"abc", "0", "", ""},
      {"3x", "0", "", ""},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    from.socket.Send(Msg("CASE" + std::to_string(i),
                         "TTL: " + cases[i].ttl + "\r\nHops: " + cases[i].hops + "\r\n"));
  }
  // One connection each way keeps the order, so the rest arrived before this.
  from.socket.Send(Msg("LAST", "TTL: 2\r\n"));
  ASSERT_TRUE(Eventually([&] { return to.Got("LAST"); }));
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE("TTL " + cases[i].ttl + " Hops " + cases[i].hops);
    const std::string id = "CASE" + std::to_string(i);
    ASSERT_EQ(to.Got(id), !cases[i].relayedTtl.empty());
    if (!to.Got(id)) continue;
    EXPECT_EQ(GetSingleField(to.got[id].Fields, "TTL"), cases[i].relayedTtl);
    EXPECT_EQ(GetSingleField(to.got[id].Fields, "Hops"), cases[i].relayedHops);
  }
  EXPECT_FALSE(from.closedByNode);
}

}  // namespace
}  // namespace qel::test
