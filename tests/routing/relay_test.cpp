// A node relaying what a raw peer wrote: only TTL, Hops and Route change, a
// peer's numbers stay bounded, and nothing a peer writes stops the relay.
#include <gtest/gtest.h>

#include <map>

#include <qel/qel.h>

#include "net/event_loop.h"
#include "net/socket.h"
#include "protocol/feeder.h"

namespace qel {
namespace {

constexpr int64_t kDeadlineMs = 10000;
// A node nobody knows, so every message to it is relayed.
constexpr char kNowhere[] = "00000000000000000000000000000000";

struct Relay {
  cQEL node;
  int accepted = 0, closed = 0;
  std::vector<std::string> errors;
  explicit Relay(int ttl) {
    node.ConnectionEstab = [this](std::string&) { ++accepted; };
    node.ConnectionClosed = [this](std::string&, std::string&) { ++closed; };
    node.Error = [this](std::string& text, std::string&) { errors.push_back(text); };
    cSettings settings;
    settings.SaveSetting("TTL", ttl);
    node.Initialise("relay", 0, role_Peer, "", "", settings.getXML());
    EXPECT_TRUE(node.Listen());
  }
};

// A raw TCP peer of the relay that keeps every MSG it is sent, by ID.
struct RawPeer {
  Socket socket;
  MessageFeeder feeder;
  std::map<std::string, typMessage> got;
  bool connected = false, closedByNode = false;
  explicit RawPeer(Relay& relay) {
    socket.SetHandlers({.onConnected = [this] { connected = true; },
                        .onData =
                            [this](std::string_view data) {
                              feeder.Feed(data, [this](typMessage&& m) {
                                if (m.MsgType == "MSG") got[GetSingleField(m.Fields, "ID")] = m;
                              });
                            },
                        .onPeerClosed = [this] { closedByNode = true; }});
    const int before = relay.accepted;
    socket.Connect("127.0.0.1", static_cast<uint16_t>(relay.node.ListenPort()));
    EXPECT_TRUE(RunUntil([&] { return connected && relay.accepted > before; }, kDeadlineMs));
  }
  bool Got(const std::string& id) { return got.contains(id); }
};

std::string Msg(const std::string& id, const std::string& fields, const std::string& body = "x") {
  return "MSG  QEL/2.1\r\nDestination: " + std::string(kNowhere) + "\r\nSource: RAW\r\n" + fields +
         "ID: " + id + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(RelayTest, RelayRewritesOnlyTtlHopsAndRouteEvenBesideArrayFields) {
  Relay relay(20);
  RawPeer from(relay), to(relay);
  // Each name also arrives as an array; Flags and lengths describe a body the
  // relay does not decode.
  const std::string arrays =
      "TTL: 5\r\nTTL-Max: 3\r\nHops: 2\r\nHops-Max: 3\r\nRoute: R1,\r\nRoute-Max: 3\r\n"
      "Flags: Z,\r\nOriginal-Length: 99\r\n";
  from.socket.Send(Msg("ARRAYS", arrays, "not really packed"));
  from.socket.Send(Msg("AFTER", "TTL: 2\r\n"));
  ASSERT_TRUE(RunUntil([&] { return to.Got("AFTER"); }, kDeadlineMs)) << relay.errors.size();
  ASSERT_TRUE(to.Got("ARRAYS"));
  EXPECT_EQ(
      SerialiseMessage(to.got["ARRAYS"]),
      Msg("ARRAYS",
          "TTL: 4\r\nTTL-Max: 3\r\nHops: 3\r\nHops-Max: 3\r\nRoute: R1," + relay.node.NodeID() +
              ",\r\nRoute-Max: 3\r\nFlags: Z,\r\nOriginal-Length: 99\r\n",
          "not really packed"));
  EXPECT_TRUE(relay.errors.empty());
  EXPECT_FALSE(from.closedByNode);
  EXPECT_EQ(relay.closed, 0);
}

TEST(RelayTest, PeerTtlAndHopsAreBoundedAndNonsenseIsNotRelayed) {
  Relay relay(5);
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
  ASSERT_TRUE(RunUntil([&] { return to.Got("LAST"); }, kDeadlineMs));
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
}  // namespace qel
