// Nodes in one process talking over loopback.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qel/qel.h>

#include "net/event_loop.h"
#include "net/socket.h"
#include "node/module.h"
#include "node/node_access.h"
#include "routing/confirm.h"

namespace qel {
namespace {

constexpr int64_t kDeadlineMs = 10000;

std::string Settings(std::initializer_list<std::pair<const char*, Variant>> values) {
  cSettings settings;
  for (const auto& [key, value] : values) settings.SaveSetting(key, value);
  return settings.getXML();
}

// A node with everything it raised written down.
struct Peer {
  cQEL node;
  std::vector<std::string> messages, types, senders, errors, closed, established;
  explicit Peer(const std::string& name, const std::string& settings = "") {
    node.MessageReceived = [this](std::string& text, std::string& type, std::string& from) {
      messages.push_back(text);
      types.push_back(type);
      senders.push_back(from);
    };
    node.Error = [this](std::string& text, std::string&) { errors.push_back(text); };
    node.ConnectionClosed = [this](std::string& ip, std::string&) { closed.push_back(ip); };
    node.ConnectionEstab = [this](std::string& ip) { established.push_back(ip); };
    node.Initialise(name, 0, role_Peer, "", "", settings);
  }
  NodeState& State() { return *TheModule().Slot(detail::NodeAccess::SlotIndex(node)); }
  std::string ID() { return State().NodeID; }
  int32_t Port() { return State().ListenPort; }
  std::string Address() { return "127.0.0.1:" + std::to_string(Port()); }
  void Listen() { ASSERT_TRUE(node.Listen()); }
  // Connects and waits until the peer has our INFO, so it knows which link is ours.
  void ConnectTo(Peer& other) {
    ASSERT_TRUE(node.Connect(other.Address()));
    ASSERT_TRUE(RunUntil([&] { return other.Knows(ID()); }, kDeadlineMs));
  }
  bool Knows(const std::string& id) {
    for (const auto& entry : State().NodeCache) {
      if (entry.ID == id) return true;
    }
    return false;
  }
};

TEST(NetworkTest, TwoNodesExchangeMessagesAndErrors) {
  Peer a("alpha"), b("bravo");
  a.Listen();
  ASSERT_NE(a.Port(), 0);  // a free port, advertised
  b.ConnectTo(a);
  // Only a node's own connections set its flag; a node that just accepted
  // stays "not connected" and cannot disconnect by address.
  EXPECT_FALSE(a.node.isConnected());
  EXPECT_FALSE(a.node.DisconnectFrom(b.Address()));
  EXPECT_TRUE(b.node.isConnected());

  b.node.SendMessage("hello all", "BROADCAST", "greeting");
  a.node.SendMessage("just you", b.ID());
  a.node.SendMessage("went wrong", b.ID(), "ERROR");
  ASSERT_TRUE(RunUntil(
      [&] { return a.messages.size() == 1 && b.messages.size() == 1 && b.errors.size() == 1; },
      kDeadlineMs));
  EXPECT_EQ(a.messages[0], "hello all");
  EXPECT_EQ(a.types[0], "greeting");
  EXPECT_EQ(a.senders[0], b.ID());
  EXPECT_EQ(b.messages[0], "just you");
  EXPECT_EQ(b.senders[0], a.ID());
  EXPECT_EQ(b.errors[0], "went wrong");

  // Discovery: asking a node that answers; the answer is cached.
  auto info = b.node.GetNodeInfo(a.ID(), false);
  ASSERT_EQ(info.size(), 1u);
  EXPECT_EQ(info[0].Name, "alpha");
  EXPECT_TRUE(info[0].directConn);
  EXPECT_EQ(info[0].Address, a.Address());
  EXPECT_GE(b.node.Ping(a.ID(), 5000), 0);
  EXPECT_THROW(b.node.Ping("NOSUCHNODE"), QelError);

  EXPECT_TRUE(b.node.DisconnectFrom(a.Address()));
  ASSERT_TRUE(RunUntil([&] { return a.closed.size() == 1; }, kDeadlineMs));
  EXPECT_FALSE(b.node.isConnected());
  EXPECT_EQ(b.closed.size(), 1u);
}

// Nodes of one process share the connection table, so every node's floods go
// out on every link of the process, whoever owns it; routes are checked
// between processes instead.
TEST(NetworkTest, MessagesCrossAMiddleNodeEncryptedAndCompressed) {
  const std::string packed = Settings({{"useComp", true}, {"useEnc", true}});
  Peer a("a", packed), b("b", packed), c("c", packed);
  a.Listen();
  c.Listen();
  b.ConnectTo(a);
  b.ConnectTo(c);

  // A raw listener beside the line sees whatever a floods.
  std::string tapped;
  std::vector<std::unique_ptr<Socket>> tapLinks;
  Listener tap([&](std::unique_ptr<Socket> s) {
    s->SetHandlers({.onData = [&](std::string_view d) { tapped.append(d); }});
    tapLinks.push_back(std::move(s));
  });
  ASSERT_FALSE(tap.Listen(0));
  ASSERT_TRUE(a.node.Connect("127.0.0.1:" + std::to_string(tap.LocalPort())));

  c.node.SendMessage("from c", a.ID());
  ASSERT_TRUE(RunUntil([&] { return a.messages.size() == 1; }, kDeadlineMs));
  EXPECT_EQ(a.messages[0], "from c");

  a.node.SendMessage("to c", c.ID());
  ASSERT_TRUE(RunUntil([&] { return c.messages.size() == 1; }, kDeadlineMs));
  EXPECT_EQ(c.messages[0], "to c");

  // What goes on the wire is encrypted, then compressed.
  a.node.SendMessage("marker", "BROADCAST");
  ASSERT_TRUE(
      RunUntil([&] { return tapped.find("Flags: NE,Z,") != std::string::npos; }, kDeadlineMs));
  EXPECT_EQ(tapped.find("marker"), std::string::npos);
}

TEST(NetworkTest, ConfirmedMessagesSettleAndUnconfirmedOnesAreGivenUp) {
  const std::string confirming =
      Settings({{"confirmMode", true}, {"confirmTimeout", 100}, {"confirmRetry", 1}});
  Peer a("a", confirming), b("b");
  a.Listen();
  b.ConnectTo(a);
  a.node.SendMessage("one", b.ID());
  a.node.SendMessage("two", b.ID());  // held until the first is confirmed
  ASSERT_TRUE(RunUntil([&] { return b.messages.size() == 2 && PendingCount() == 0; }, kDeadlineMs));
  EXPECT_EQ(b.messages, (std::vector<std::string>{"one", "two"}));

  a.node.SendMessage("lost", "NOBODY");
  ASSERT_TRUE(RunUntil([&] { return !a.errors.empty(); }, kDeadlineMs));
  EXPECT_TRUE(a.errors[0].starts_with("MSG packet [ID: ")) << a.errors[0];
  EXPECT_TRUE(a.errors[0].ends_with("] could not be delivered to NOBODY")) << a.errors[0];
  EXPECT_EQ(PendingCount(), 0u);
}

TEST(NetworkTest, RefusedRequestsAndHandlersThatShutTheirNodeDown) {
  Peer a("a"), b("b");
  a.Listen();
  a.node.ConnectionReq = [](std::string&, bool& cancel) { cancel = true; };
  ASSERT_TRUE(b.node.Connect(a.Address()));  // the TCP connect itself succeeds
  ASSERT_TRUE(RunUntil([&] { return !b.node.isConnected(); }, kDeadlineMs));
  EXPECT_TRUE(a.established.empty());

  a.node.ConnectionReq = nullptr;
  auto doomed = std::make_unique<Peer>("doomed");
  doomed->node.MessageReceived = [&](std::string&, std::string&, std::string&) {
    doomed->node.ShutDown();
  };
  doomed->ConnectTo(a);
  a.node.SendMessage("bye", "BROADCAST");
  ASSERT_TRUE(RunUntil([&] { return a.closed.size() == 1; }, kDeadlineMs));
  doomed.reset();
  a.node.SendMessage("anyone?", "BROADCAST");
  DoEvents(0);
}

TEST(NetworkTest, HandlersMayWaitAndTheStatisticsTimerCountsTraffic) {
  Peer a("a"), b("b");
  a.Listen();
  b.ConnectTo(a);
  // A blocking call from inside an event runs the loop again, nested.
  int32_t pingTime = -2;
  a.node.MessageReceived = [&](std::string&, std::string&, std::string& from) {
    a.node.MessageReceived = nullptr;
    a.node.GetNodeInfo(from, false);
    pingTime = a.node.Ping(from, 5000);
  };
  b.node.SendMessage("ping me", a.ID());
  ASSERT_TRUE(RunUntil([&] { return pingTime != -2; }, kDeadlineMs));
  EXPECT_GE(pingTime, 0);

  cQELStats stats;
  const int32_t sentBefore = stats.OutPacketCount();
  for (int i = 0; i < 10; ++i) b.node.SendMessage("x", a.ID());
  EXPECT_EQ(stats.OutPacketCount(), sentBefore + 10);
  ASSERT_TRUE(RunUntil([&] { return stats.OutPacketRate() >= 20 && stats.InByteSpeed() > 0; },
                       kDeadlineMs));
}

TEST(NetworkTest, MaintainedLinksAreRedialledWhenTheyDrop) {
  Peer b("b");
  std::vector<std::unique_ptr<Socket>> links;
  Listener far([&](std::unique_ptr<Socket> s) { links.push_back(std::move(s)); });
  ASSERT_FALSE(far.Listen(0));
  const std::string address = "127.0.0.1:" + std::to_string(far.LocalPort());
  ASSERT_TRUE(b.node.Connect(address, false, true));
  ASSERT_TRUE(RunUntil([&] { return links.size() == 1; }, kDeadlineMs));
  // The far end drops the link; b dials again at once and says so.
  links[0]->Close();
  ASSERT_TRUE(RunUntil([&] { return !b.established.empty() && links.size() == 2; }, kDeadlineMs));
  EXPECT_EQ(b.established[0], address);
  EXPECT_TRUE(b.node.isConnected());
  // Disconnecting on purpose stops the maintaining.
  EXPECT_TRUE(b.node.DisconnectFrom(address));
  EXPECT_FALSE(b.node.isConnected());
  EXPECT_EQ(b.established.size(), 1u);
}

TEST(NetworkTest, ADialThatHangsNeverBlocksTheLoop) {
  Peer b("b", Settings({{"Timeout", 5000}}));
  // A listener that never accepts: once one connection waits in its queue,
  // the kernel drops further dials' handshakes and they hang.
  int far = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in at{.sin_family = AF_INET};
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof at;
  ASSERT_EQ(bind(far, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
  ASSERT_EQ(listen(far, 0), 0);
  getsockname(far, reinterpret_cast<sockaddr*>(&at), &size);
  const std::string address = "127.0.0.1:" + std::to_string(ntohs(at.sin_port));
  ASSERT_TRUE(b.node.Connect(address, false, true));
  int link = accept(far, nullptr, nullptr);
  int filler = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connect(filler, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
  // The drop makes b dial again; the dial hangs for its Timeout, and the
  // loop goes on meanwhile.
  close(link);
  const int64_t start = TickCount();
  ASSERT_TRUE(RunUntil([&] { return b.closed.size() == 1; }, kDeadlineMs));
  EXPECT_LT(TickCount() - start, 2500);
  close(filler);
  close(far);
}

}  // namespace
}  // namespace qel
