// A node relaying what a raw peer wrote: only TTL, Hops and Route change, a
// peer's numbers stay bounded, and nothing a peer writes stops the relay.
#include <gtest/gtest.h>

#include "../support/peers.h"

namespace qel::test {
namespace {

// A node nobody knows, so every message to it is relayed.
constexpr char kNowhere[] = "00000000000000000000000000000000";

std::string Msg(const std::string& id, const std::string& fields, const std::string& body = "x") {
  return RawMsg(id, fields, body, kNowhere);
}

TEST(RelayTest, RelayRewritesOnlyTtlHopsAndRouteEvenBesideArrayFields) {
  Peer relay("relay", Settings("TTL=20"), true);
  RawPeer from(relay), to(relay);
  // Each name also arrives as an array; Flags and lengths describe a body the
  // relay does not decode.
  from.socket.Send(Msg("ARRAYS",
                       "TTL: 5\r\nTTL-Max: 3\r\nHops: 2\r\nHops-Max: 3\r\nRoute: R1,\r\n"
                       "Route-Max: 3\r\nFlags: Z,\r\nOriginal-Length: 99\r\n",
                       "not really packed"));
  from.socket.Send(Msg("AFTER", "TTL: 2\r\n"));
  ASSERT_TRUE(Eventually([&] { return to.Got("AFTER"); })) << relay.errors.size();
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
