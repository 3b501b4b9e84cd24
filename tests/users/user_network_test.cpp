// The user list across three nodes of one process in a line (a - b - c),
// and raw peers sending what a node must not take.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "../support/peers.h"

namespace qel::test {
namespace {

std::string Record(cQEL& node, const std::string& user) {
  cSettings list;
  list.LoadXML(node.getUserXML());
  std::string out;
  for (const char* key : {"Password", "Authority"}) {
    out += list.GetSetting(key, "-", user).toString() + "|";
  }
  return out;
}

std::string Stamp(cQEL& node, const std::string& user) {
  cSettings list;
  list.LoadXML(node.getUserXML());
  return list.GetSetting("Updated", "-", user).toString();
}

class UserNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    c.ConnectTo(b);
    a.ConnectTo(b);  // its INFO reaches c through b
    ASSERT_EQ(a.node.GetNodeInfo(c.ID(), false).at(0).ID, c.ID());
  }
  Peer a{"Ay", Settings("Timeout=10000"), true}, b{"Bee", Settings("Timeout=10000"), true},
      c{"Cee", Settings("Timeout=10000"), true};
};

TEST_F(UserNetworkTest, UpdatesAndRemovalsReachTheOtherEnd) {
  a.node.updateUser("alice", "pw");
  EXPECT_EQ(Record(a.node, "alice"), "pw|Ay|");
  ASSERT_TRUE(Eventually([&] { return Record(c.node, "alice") == "pw|Ay|"; }));
  EXPECT_EQ(Record(b.node, "alice"), "pw|Ay|");

  c.node.updateUser("alice", "new");
  ASSERT_TRUE(Eventually([&] { return Record(a.node, "alice") == "new|Cee|"; }));

  // The origin keeps the user with an empty password; the others keep an
  // empty record, so nobody logs in as alice.
  a.node.updateUser("alice", "ignored", user_Remove);
  EXPECT_EQ(Record(a.node, "alice"), "|Ay|");
  ASSERT_TRUE(Eventually([&] { return Record(c.node, "alice") == "-|-|"; }));
  EXPECT_EQ(Record(b.node, "alice"), "-|-|");
  EXPECT_FALSE(c.node.LoginAs("alice", ""));
  EXPECT_TRUE(a.errors.empty() && b.errors.empty() && c.errors.empty());
}

TEST_F(UserNetworkTest, SyncMergesBothWaysByStamp) {
  a.node.setUserXML(
      "<Settings><shared><Password>a</Password><Authority>Ay</Authority>"
      "<Updated>2020-01-01 00:00:00</Updated></shared><onlyA><Password>x</Password>"
      "<Authority>Ay</Authority><Updated>2021-05-05 10:00:00</Updated></onlyA></Settings>");
  c.node.setUserXML(
      "<Settings><shared><Password>c</Password><Authority>Cee</Authority>"
      "<Updated>1/2/2025 3:04:05 PM</Updated></shared><onlyC><Password>y</Password>"
      "<Authority>Cee</Authority><Updated>2022-01-01 00:00:00</Updated></onlyC></Settings>");
  a.node.SyncUserList();
  for (Peer* peer : {&a, &c}) {
    ASSERT_TRUE(Eventually([&] {
      return Record(peer->node, "shared") == "c|Cee|" && Record(peer->node, "onlyA") == "x|Ay|" &&
             Record(peer->node, "onlyC") == "y|Cee|";
    })) << peer->node.getUserXML();
    // The stamp travels as it was written.
    EXPECT_EQ(Stamp(peer->node, "shared"), "1/2/2025 3:04:05 PM");
  }
  // b heard a's list, and answered only a with its own.
  EXPECT_EQ(Record(b.node, "onlyA"), "x|Ay|");
  EXPECT_EQ(Record(b.node, "onlyC"), "-|-|");
}

TEST_F(UserNetworkTest, LoginAsksEveryNodeAndSetsTheActiveUser) {
  c.node.updateUser("bob", "secret");
  ASSERT_TRUE(Eventually([&] { return Record(a.node, "bob") == "secret|Cee|"; }));
  EXPECT_FALSE(a.node.LoginAs("bob", "wrong"));
  EXPECT_FALSE(a.node.LoginAs("nobody", ""));
  EXPECT_FALSE(a.node.LoginAs("nobody", "<unknown>"));
  EXPECT_TRUE(a.node.LoginAs("bob", "secret"));
  EXPECT_EQ(c.node.GetNodeInfo(a.ID(), false).at(0).activeUser, "bob");

  // Alone, nobody answers.
  Peer alone{"alone", Settings("Timeout=100")};
  EXPECT_FALSE(alone.node.LoginAs("bob", "secret"));
}

// A raw peer on b sends user messages b must refuse; b reports each fault
// and keeps what it had.
TEST_F(UserNetworkTest, WhatCannotBeTakenIsReportedAndChangesNothing) {
  RawPeer raw(b);
  int n = 0;
  auto send = [&](const std::string& type, const std::string& fields, const std::string& body) {
    const std::string id = "RAWID" + std::to_string(++n);
    raw.socket.Send(type + "  QEL/2.1\r\nDestination: BROADCAST\r\nSource: RAW\r\n" + fields +
                    "ID: " + id + "\r\nContent-Length: " + std::to_string(body.size()) +
                    "\r\n\r\n" + body);
  };
  auto update = [](const std::string& op, const std::string& name) {
    cSettings body;
    body.SaveSetting("Operation", Variant(op));
    if (!name.empty()) body.SaveSetting("Name", Variant(name));
    body.SaveSetting("Password", Variant("p"));
    return body.getXML();
  };
  send("LOGIN", "Authentication: nocolon\r\n", "");
  send("UPDATEUSER", "", "<Settings><Common><Name>x</Settings>");
  send("UPDATEUSER", "", update("UPDATE", ""));
  send("UPDATEUSER", "", update("UPDATE", "mallory"));  // RAW is no node b knows
  send("USERLIST", "",
       "<Settings><first><Password>1</Password><Authority>r</Authority><Updated>2024-01-01 "
       "00:00:00</Updated></first><second><Updated>2024-01-01 00:00:00</Updated></second>"
       "</Settings>");
  send("RPC", "ReqID: 1\r\n", "");
  send("RPCRETURN", "ReqID: nobody\r\nParams: x\r\n", "");
  ASSERT_TRUE(Eventually([&] { return b.errors.size() >= 5; })) << b.errors.size();
  EXPECT_EQ(b.errors, (std::vector<std::string>{"Error 5: Invalid procedure call or argument",
                                                 "Error 4: Corrupt or incompatible XMLSettings file",
                                                 "Error 2: Setting not found",
                                                 "Error 9: Subscript out of range",
                                                 "Error 2: Setting not found"}));
  EXPECT_EQ(Record(b.node, "mallory"), "-|-|");
  EXPECT_EQ(Record(b.node, "first"), "1|r|");
  EXPECT_EQ(Record(b.node, "second"), "-|-|");
  // b answered none of it, and still works.
  for (const auto& [reqID, answer] : raw.answers) EXPECT_EQ(answer.MsgType, "INFO");
  EXPECT_TRUE(a.node.LoginAs("first", "1"));
}

// What no node may keep: a 4 MB password, planted by a peer or set by the
// host, and a record stamped years ahead, which would beat every later
// change. Each is refused with an Error, and a genuine later record wins.
TEST_F(UserNetworkTest, OversizedAndFutureRecordsAreRefusedAndLaterOnesStillWin) {
  RawPeer raw(b);
  auto send = [&](const std::string& type, const std::string& id, const std::string& body) {
    raw.socket.Send(type + "  QEL/2.1\r\nDestination: " + b.ID() + "\r\nSource: RAW\r\nID: " +
                    id + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                    body);
  };
  send("INFO", "RAW1", "");  // b takes updates only from a node it knows
  ASSERT_TRUE(Eventually([&] { return b.Knows("RAW"); }));
  const std::string huge(4 << 20, 'p');
  cSettings update;
  update.SaveSetting("Operation", Variant("UPDATE"));
  update.SaveSetting("Name", Variant("big"));
  update.SaveSetting("Password", Variant(huge));
  send("UPDATEUSER", "RAW2", update.getXML());
  send("USERLIST", "RAW3",
       "<Settings><pinned><Password>evil</Password><Authority>RAW</Authority>"
       "<Updated>9999-12-31 23:59:59</Updated></pinned></Settings>");
  auto said = [&](const std::string& text) {
    return std::ranges::any_of(b.errors,
                               [&](const std::string& e) { return e.find(text) != e.npos; });
  };
  ASSERT_TRUE(Eventually([&] { return said("UPDATEUSER: users refused") && said("day ahead"); }))
      << testing::PrintToString(b.errors);
  EXPECT_EQ(Record(b.node, "big"), "-|-|");
  EXPECT_EQ(Record(b.node, "pinned"), "-|-|");

  // The host hears why, and nothing is sent.
  a.node.updateUser("big", huge);
  EXPECT_EQ(a.errors, (std::vector<std::string>{
                          "Error 6: A user's name, password, authority and stamp hold at most "
                          "4096 bytes each"}));
  EXPECT_EQ(Record(a.node, "big"), "-|-|");

  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  std::tm local{};
  localtime_r(&t, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  a.node.setUserXML(std::string("<Settings><pinned><Password>genuine</Password><Authority>Ay"
                                "</Authority><Updated>") +
                    stamp + "</Updated></pinned></Settings>");
  a.node.SyncUserList();
  ASSERT_TRUE(Eventually([&] { return Record(b.node, "pinned") == "genuine|Ay|"; }));
  EXPECT_LT(b.node.getUserXML().size(), 1024u);  // what b answers a SYNCUSERS with
}

}  // namespace
}  // namespace qel::test
