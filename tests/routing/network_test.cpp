// Nodes in one process talking over loopback.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "../support/peers.h"
#include "routing/confirm.h"

namespace qel::test {
namespace {

TEST(NetworkTest, TwoNodesExchangeMessagesAndErrors) {
  Peer a("alpha", "", true), b("bravo");
  ASSERT_NE(a.Port(), 0);  // a free port, advertised
  b.ConnectTo(a);
  // Both ends announce themselves and count the link as theirs.
  ASSERT_TRUE(Eventually([&] { return b.Knows(a.ID()); }));
  EXPECT_TRUE(a.node.isConnected() && b.node.isConnected());
  EXPECT_EQ(a.established.size(), 1u);
  EXPECT_EQ(b.established, std::vector<std::string>{a.Address()});

  b.node.SendMessage("hello all", "BROADCAST", "greeting");
  a.node.SendMessage("went wrong", b.ID(), "ERROR");
  ASSERT_TRUE(Eventually([&] { return a.messages.size() == 1 && b.errors.size() == 1; }));
  EXPECT_EQ(a.messages[0] + " " + a.types[0] + " " + a.senders[0], "hello all greeting " + b.ID());
  EXPECT_EQ(b.errors[0], "went wrong");

  EXPECT_GE(a.node.Ping(b.ID(), 5000), 0);
  EXPECT_THROW(b.node.Ping("NOSUCHNODE"), QelError);
  // Asking afresh waits for a new answer instead of returning the cached one.
  a.node.switchRole(role_Router);
  auto info = b.node.GetNodeInfo(a.ID(), false);
  ASSERT_EQ(info.size(), 1u);
  EXPECT_EQ(std::tuple(info[0].Name, info[0].Role, info[0].directConn, info[0].Address),
            std::tuple(std::string("alpha"), role_Router, true, a.Address()));

  // The accepting end can close the link, by identifier; only an open one counts.
  EXPECT_TRUE(a.node.DisconnectFrom(b.ID(), true));
  EXPECT_FALSE(a.node.DisconnectFrom(b.ID(), true));
  ASSERT_TRUE(Eventually([&] { return b.closed.size() == 1; }));
  EXPECT_EQ(a.closedIDs, std::vector<std::string>{b.ID()});
  EXPECT_EQ(b.closedIDs, std::vector<std::string>{a.ID()});
  EXPECT_FALSE(a.node.isConnected() || b.node.isConnected());
}

// Two nodes linked both ways: each lists the link it dialled and the one it
// accepted, both named by the other's advertised address once it announced
// itself, never by the port an accepted connection came from.
TEST(NetworkTest, LinksNameEachOpenLinkItsNodeAndWhichEndDialled) {
  Peer a("a", "", true), b("b", "", true);
  a.ConnectTo(b);
  ASSERT_TRUE(b.node.Connect(a.Address()));
  const auto named = [](cQEL& node) {
    const std::vector<typLinkInfo> links = node.Links();
    return links.size() == 2 && !links[0].nodeID.empty() && !links[1].nodeID.empty();
  };
  ASSERT_TRUE(Eventually([&] { return named(a.node) && named(b.node); }));
  const auto listed = [](cQEL& node) {
    std::vector<std::string> lines;
    int32_t last = 0;
    for (const typLinkInfo& link : node.Links()) {
      EXPECT_GT(link.Index, last);
      last = link.Index;
      lines.push_back(link.Address + " " + link.nodeID +
                      (link.isAccepted ? " accepted" : " dialled") +
                      (link.isSecure ? " secure " : " plain ") + link.PeerKey);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  };
  EXPECT_EQ(listed(a.node),
            (std::vector<std::string>{b.Address() + " " + b.ID() + " accepted plain ",
                                      b.Address() + " " + b.ID() + " dialled plain "}));
  EXPECT_EQ(listed(b.node),
            (std::vector<std::string>{a.Address() + " " + a.ID() + " accepted plain ",
                                      a.Address() + " " + a.ID() + " dialled plain "}));
  EXPECT_TRUE(a.node.DisconnectAll());
  ASSERT_TRUE(Eventually([&] { return b.closed.size() == 2; }));
  EXPECT_TRUE(a.node.Links().empty() && b.node.Links().empty());
}

TEST(NetworkTest, ListenAddressPingOfUnknownNodeAndDisconnectAllOfAcceptedLinks) {
  Peer a("a", "", true), b("b", Settings("announceSelf=False listenAddress=127.0.0.1"), true);
  Peer wrong("wrong", Settings("listenAddress=localhost:1"));
  EXPECT_FALSE(wrong.node.Listen());
  ASSERT_EQ(wrong.errors.size(), 1u);
  EXPECT_NE(wrong.errors[0].find("localhost:1"), std::string::npos);
  ASSERT_TRUE(a.node.Connect(b.Address()));
  // Neither announced itself to a, so a knows b only by asking.
  ASSERT_TRUE(Eventually([&] { return b.established.size() == 1; }));
  EXPECT_FALSE(a.Knows(b.ID()));
  EXPECT_GE(a.node.Ping(b.ID(), 5000), 0);
  EXPECT_TRUE(b.node.DisconnectAll());
  ASSERT_TRUE(Eventually([&] { return a.closed.size() == 1; }));
  EXPECT_FALSE(b.node.isConnected());
}

// Pings that do not wait: two to a known node and one to a node asked about
// first, all in flight at once, each answered once from the loop; one to
// nobody ends at its deadline; a node shut down drops its own.
TEST(NetworkTest, PingsInFlightEndOnceEachAndAShutDownNodeDropsItsOwn) {
  Peer a("a", "", true), b("b"), c("c", Settings("announceSelf=False"), true);
  b.ConnectTo(a);
  ASSERT_TRUE(a.node.Connect(c.Address()));
  ASSERT_TRUE(Eventually([&] { return c.established.size() == 1; }));
  ASSERT_FALSE(a.Knows(c.ID()));
  std::map<std::string, std::vector<int64_t>> ends;  // microseconds
  const auto end = [&](std::string name) {
    return [&, name](std::chrono::microseconds rtt) { ends[name].push_back(rtt.count()); };
  };
  a.node.PingAsync(b.ID(), end("b"), 5000);
  a.node.PingAsync(b.ID(), end("b"), 5000);
  a.node.PingAsync(c.ID(), end("c"), 5000);
  a.node.PingAsync("NOBODY", end("nobody"), 100);
  EXPECT_TRUE(ends.empty());  // never from inside the call
  ASSERT_TRUE(Eventually([&] { return ends.size() == 3 && ends["b"].size() == 2; }));
  // Timed finer than milliseconds: a loopback answer does not read as 0.
  EXPECT_TRUE(ends["b"][0] > 0 && ends["b"][1] > 0);
  ASSERT_EQ(ends["c"].size(), 1u);
  EXPECT_GT(ends["c"][0], 0);
  ASSERT_EQ(ends["nobody"].size(), 1u);
  EXPECT_LT(ends["nobody"][0], 0);

  auto doomed = std::make_unique<Peer>("doomed");
  doomed->node.PingAsync("NOBODY", end("dropped"), 1);
  doomed.reset();
  // Timers run in deadline order: the dropped ping's would have run first.
  a.node.PingAsync("NOBODY", end("last"), 50);
  ASSERT_TRUE(Eventually([&] { return ends.contains("last"); }));
  EXPECT_FALSE(ends.contains("dropped"));
  EXPECT_EQ(ends["b"].size() + ends["c"].size() + ends["nobody"].size(), 4u);
}

TEST(NetworkTest, ConfirmedMessagesSettleAndUnconfirmedOnesAreGivenUp) {
  Peer a("a", Settings("confirmMode=True confirmTimeout=100 confirmRetry=1"), true);
  Peer b("b");
  b.ConnectTo(a);
  a.node.SendMessage("one", b.ID());
  a.node.SendMessage("two", b.ID());  // held until the first is confirmed
  ASSERT_TRUE(Eventually([&] { return b.messages.size() == 2 && PendingCount() == 0; }));
  EXPECT_EQ(b.messages, (std::vector<std::string>{"one", "two"}));

  a.node.SendMessage("lost", "NOBODY");
  ASSERT_TRUE(Eventually([&] { return !a.errors.empty(); }));
  EXPECT_TRUE(a.errors[0].ends_with("] could not be delivered to NOBODY")) << a.errors[0];
  EXPECT_EQ(PendingCount(), 0u);
}

TEST(NetworkTest, AResendAfterTheDuplicateCacheMovedOnIsNotDeliveredAgain) {
  Peer target("target", Settings("packetCache=2"), true);
  RawPeer peer(target);
  ASSERT_TRUE(Eventually([&] { return peer.connected && target.established.size() == 1; }));
  const std::string resent = RawMsg("RESENT", "TTL: 1\r\nFlags: C,\r\n", "once", target.ID());
  peer.socket.Send(resent);
  // Answers without a ReqID (the node's INFO, then this CONFIRM) share a key.
  ASSERT_TRUE(Eventually([&] { return peer.answers[""].MsgType == "CONFIRM"; }));
  // Three more push it out of a cache of two before it comes again.
  for (const char* id : {"X1", "X2", "X3"}) {
    peer.socket.Send(RawMsg(id, "TTL: 1\r\n", id, target.ID()));
  }
  peer.socket.Send(resent);
  peer.socket.Send(RawMsg("LAST", "TTL: 1\r\n", "last", target.ID()));
  ASSERT_TRUE(Eventually([&] { return !target.messages.empty() && target.messages.back() == "last"; }));
  EXPECT_EQ(target.messages, (std::vector<std::string>{"once", "X1", "X2", "X3", "last"}));
}

// Five nodes in a ring and a raw peer on one of them. Every loop a flood
// can take brings copies back long after packetCache others passed; each
// node handles and relays a message once however many are in flight.
TEST(NetworkTest, ARingHandlesEveryFloodOnceOnEveryNode) {
  std::vector<std::unique_ptr<Peer>> ring;
  for (int i = 0; i < 5; ++i) {
    ring.push_back(std::make_unique<Peer>("r" + std::to_string(i), "", true));
  }
  for (int i = 0; i < 5; ++i) ring[i]->ConnectTo(*ring[(i + 1) % 5]);
  RawPeer peer(*ring[0]);
  ASSERT_TRUE(Eventually([&] { return !peer.arrivals.empty(); }));  // its announcement
  peer.arrivals.clear();

  // Each node answers each WHOIS with one INFO, which reaches the asker once.
  constexpr int kWhois = 200;
  std::string burst;
  for (int i = 0; i < kWhois; ++i) {
    burst += "WHOIS  QEL/2.1\r\nDestination: BROADCAST\r\nSource: ASKER\r\nTTL: 20\r\nID: W" +
             std::to_string(i) + "\r\n\r\n";
  }
  peer.socket.Send(burst);
  auto isInfo = [](const auto& arrival) { return arrival.first == "INFO"; };
  ASSERT_TRUE(
      Eventually([&] { return std::ranges::count_if(peer.arrivals, isInfo) >= 5 * kWhois; }));
  const std::set distinct(peer.arrivals.begin(), peer.arrivals.end());
  EXPECT_EQ(peer.arrivals.size(), 5u * kWhois) << "WHOIS or INFO copies came back";
  EXPECT_EQ(distinct.size(), peer.arrivals.size());
  peer.arrivals.clear();

  // A broadcast flood is raised once per message on every node.
  constexpr int kFlood = 3000;
  std::string flood;
  for (int i = 0; i < kFlood; ++i) {
    flood += RawMsg("F" + std::to_string(i), "TTL: 20\r\n", "flood " + std::to_string(i));
  }
  peer.socket.Send(flood);
  ASSERT_TRUE(Eventually([&] {
    return std::ranges::all_of(ring,
                               [](const auto& node) { return node->messages.size() >= kFlood; });
  }));
  for (const auto& node : ring) {
    EXPECT_EQ(std::set<std::string>(node->messages.begin(), node->messages.end()).size(),
              node->messages.size())
        << node->ID() << " raised a message twice";
  }
  EXPECT_TRUE(peer.arrivals.empty()) << peer.arrivals.size() << " of its own came back";
}

TEST(NetworkTest, RefusedRequestsAndHandlersThatShutTheirNodeDown) {
  Peer a("a", "", true), b("b");
  a.node.ConnectionReq = [](std::string&, bool& cancel) { cancel = true; };
  ASSERT_TRUE(b.node.Connect(a.Address()));  // the TCP connect itself succeeds
  ASSERT_TRUE(Eventually([&] { return !b.node.isConnected(); }));
  EXPECT_TRUE(a.established.empty());

  a.node.ConnectionReq = nullptr;
  auto doomed = std::make_unique<Peer>("doomed");
  doomed->node.MessageReceived = [&](std::string&, std::string&, std::string&) {
    doomed->node.ShutDown();
  };
  doomed->ConnectTo(a);
  a.node.SendMessage("bye", "BROADCAST");
  ASSERT_TRUE(Eventually([&] { return a.closed.size() == 1; }));
  doomed.reset();
  a.node.SendMessage("anyone?", "BROADCAST");
  DoEvents(0);
}

TEST(NetworkTest, HandlersMayWaitAndTheStatisticsTimerCountsTraffic) {
  Peer a("a", "", true), b("b");
  b.ConnectTo(a);
  // A blocking call from inside an event runs the loop again, nested.
  int32_t pingTime = -2;
  a.node.MessageReceived = [&](std::string&, std::string&, std::string& from) {
    a.node.MessageReceived = nullptr;
    a.node.GetNodeInfo(from, false);
    pingTime = a.node.Ping(from, 5000);
  };
  b.node.SendMessage("ping me", a.ID());
  ASSERT_TRUE(Eventually([&] { return pingTime != -2; }));
  EXPECT_GE(pingTime, 0);

  cQELStats stats;
  const int32_t sentBefore = stats.OutPacketCount();
  for (int i = 0; i < 10; ++i) b.node.SendMessage("x", a.ID());
  EXPECT_EQ(stats.OutPacketCount(), sentBefore + 10);
  ASSERT_TRUE(Eventually([&] { return stats.OutPacketRate() >= 20 && stats.InByteSpeed() > 0; }));
}

TEST(NetworkTest, MaintainedLinksAreRedialledWhenTheyDrop) {
  Peer b("b");
  std::vector<std::unique_ptr<Socket>> links;
  Listener far([&](std::unique_ptr<Socket> s) { links.push_back(std::move(s)); });
  ASSERT_FALSE(far.Listen(0));
  const std::string address = "127.0.0.1:" + std::to_string(far.LocalPort());
  ASSERT_TRUE(b.node.Connect(address, false, true));
  ASSERT_TRUE(Eventually([&] { return links.size() == 1; }));
  // The far end drops the link; b dials again at once and says so.
  links[0]->Close();
  ASSERT_TRUE(Eventually([&] { return b.established.size() == 2 && links.size() == 2; }));
  EXPECT_EQ(b.established[1], address);
  EXPECT_TRUE(b.node.isConnected());
  // Disconnecting on purpose stops the maintaining.
  EXPECT_TRUE(b.node.DisconnectFrom(address));
  EXPECT_FALSE(b.node.isConnected());
  EXPECT_EQ(b.established.size(), 2u);
}

TEST(NetworkTest, ADialThatHangsNeverBlocksTheLoop) {
  Peer b("b", Settings("Timeout=5000"));
  // A listener that never accepts: once one connection waits in its queue,
  // the kernel drops further dials' handshakes and they hang.
  uint16_t port = 0;
  const int far = ListenRaw(port, 0);
  ASSERT_TRUE(b.node.Connect("127.0.0.1:" + std::to_string(port), false, true));
  int link = accept(far, nullptr, nullptr);
  const int filler = Dial(port);
  // The drop makes b dial again; the dial hangs for its Timeout, and the
  // loop goes on meanwhile.
  close(link);
  const int64_t start = TickCount();
  ASSERT_TRUE(Eventually([&] { return b.closed.size() == 1; }));
  EXPECT_LT(TickCount() - start, 2500);
  close(filler);
  close(far);
}


// Three node objects of one process are three nodes: A dialled C, B dialled
// a raw neighbour R. Each writes, relays and closes only on its own links.
TEST(NetworkTest, NodeObjectsOfOneProcessUseOnlyTheirOwnConnections) {
  Peer a("A"), b("B"), c("C", "", true);
  a.ConnectTo(c);
  uint16_t port = 0;
  const int listener = ListenRaw(port, 1);
  const std::string rAddress = "127.0.0.1:" + std::to_string(port);
  ASSERT_TRUE(b.node.Connect(rAddress));
  const int r = accept(listener, nullptr, nullptr);
  ASSERT_GE(r, 0);

  // What R got, read until text arrives; TCP keeps one link's order, so
  // whatever was written on it before text shows up here.
  std::string atR;
  auto rReads = [&](const std::string& text) {
    return Eventually([&] {
      char buffer[65536];
      for (ssize_t n; (n = recv(r, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) atR.append(buffer, n);
      return atR.find(text) != std::string::npos;
    });
  };
  a.node.SendMessage("from A to all", "BROADCAST");
  a.node.SendMessage("from A to C", c.ID());
  b.node.SendMessage("from B to all", "BROADCAST");
  ASSERT_TRUE(rReads("from B to all"));
  EXPECT_EQ(atR.find("from A"), std::string::npos);
  a.node.SendMessage("A again", "BROADCAST");
  ASSERT_TRUE(Eventually([&] { return c.messages.size() == 3; }));
  EXPECT_EQ(c.messages, (std::vector<std::string>{"from A to all", "from A to C", "A again"}));

  // A neither sees nor closes B's link.
  EXPECT_FALSE(a.node.DisconnectFrom(rAddress));
  EXPECT_TRUE(b.node.isConnected());
  b.node.SendMessage("B still here", "BROADCAST");
  ASSERT_TRUE(rReads("B still here"));
  EXPECT_TRUE(b.node.DisconnectFrom(rAddress));
  EXPECT_FALSE(b.node.isConnected());
  EXPECT_TRUE(a.node.isConnected());
  close(r);
  close(listener);
}

}  // namespace
}  // namespace qel::test
