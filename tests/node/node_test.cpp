#include <qel/node.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <sstream>

#include <qel/settings.h>

#include "net/event_loop.h"
#include "node/module.h"
#include "node/node_access.h"
#include "routing/confirm.h"

namespace qel {
namespace {

NodeState& StateOf(cQEL& node) {
  return *TheModule().Slot(detail::NodeAccess::SlotIndex(node));
}

// A settings text with the "key=value" pairs in section "Common".
std::string Common(std::initializer_list<std::string> values) {
  cSettings settings;
  for (const std::string& v : values) {
    settings.SaveSetting(v.substr(0, v.find('=')), Variant(v.substr(v.find('=') + 1)));
  }
  return settings.getXML();
}

// What Initialise sets, as one line: identity, then the advanced settings.
std::string Summary(cQEL& node) {
  const NodeState& s = StateOf(node);
  std::ostringstream out;
  out << s.Name << " " << s.ListenPort << " " << s.Role << " " << s.Descriptor
      << "|Timeout=" << s.Timeout << " TTL=" << s.TTL << " useEnc=" << s.useEnc << " " << s.netPass
      << " useComp=" << s.useComp << " seeSelf=" << s.seeSelf << " announceSelf=" << s.announceSelf
      << " maxRoutes=" << s.maxRoutes << " " << s.RoutingOn << s.Routes.Enabled()
      << " confirm=" << s.confirmMode << " " << s.confirmTimeout << " " << s.confirmRetry
      << " filePacket=" << s.FilePacketBytes << " packetCache=" << s.SeenIDs.Capacity()
      << " maxMessage=" << s.maxMessage;
  return out.str();
}

// A node whose Error events are collected.
struct Recorder {
  cQEL node;
  std::vector<std::string> errors;
  Recorder() {
    node.Error = [this](std::string& message, std::string&) { errors.push_back(message); };
  }
};

TEST(NodeInitialiseTest, AdvancedSettingsOverrideOnlyWhatTheyNameAndEachTimeAnew) {
  Recorder r;
  r.node.Initialise("alpha");
  const std::string defaults = Summary(r.node);
  const std::string id = StateOf(r.node).NodeID, key = StateOf(r.node).EncryptionKey;
  EXPECT_NE(id, key);

  r.node.Initialise(
      "beta", 4100, role_Router, "desc", "",
      Common({"Timeout=900", "useEnc=True", "netPass=secret", "useComp=TRUE", "seeSelf=-1",
              "announceSelf=False", "maxRoutes=0", "confirmMode=True", "confirmTimeout=100",
              "confirmRetry=7", "filePacket=4", "packetCache=3", "maxMessage=99"}));
  EXPECT_EQ(Summary(r.node),
            "beta 4100 2 desc|Timeout=900 TTL=" + std::to_string(StateOf(r.node).TTL) +
                " useEnc=1 secret useComp=1 seeSelf=1 announceSelf=0 maxRoutes=0 "
                "00 confirm=1 100 7 filePacket=4096 packetCache=3 maxMessage=99");
  // Every Initialise makes a new identity and forgets earlier settings, all
  // but the pass phrase.
  EXPECT_NE(StateOf(r.node).NodeID, id);
  EXPECT_NE(StateOf(r.node).EncryptionKey, key);
  r.node.Initialise("alpha");
  std::string expected = defaults;
  expected.replace(expected.find(" blankey "), 9, " secret ");
  EXPECT_EQ(Summary(r.node), expected);
  EXPECT_TRUE(r.errors.empty());
}

TEST(NodeInitialiseTest, UnreadableTextIsIgnoredAndBadValuesAreReported) {
  Recorder r;
  r.node.Initialise("delta");
  const std::string defaults = Summary(r.node);
  r.node.Initialise("delta", 0, role_Peer, "", "", "<Settings><Common><TTL>5");
  EXPECT_EQ(Summary(r.node), defaults);
  EXPECT_TRUE(r.errors.empty());

  // A conversion fault stops reading at that key: TTL was read before it,
  // maxRoutes never.
  r.node.Initialise("eps", 0, role_Peer, "", "", Common({"TTL=9", "useComp=maybe", "maxRoutes=3"}));
  EXPECT_EQ(StateOf(r.node).TTL, 9);
  EXPECT_NE(StateOf(r.node).maxRoutes, 3);
  EXPECT_FALSE(StateOf(r.node).NodeID.empty());
  for (const char* bad :
       {"filePacket=2097152", "maxRoutes=40000", "Timeout=99999999999", "packetCache=-5"}) {
    r.node.Initialise("zeta", 0, role_Peer, "", "", Common({bad}));
  }
  EXPECT_EQ(r.errors, (std::vector<std::string>{"Error 13: Type mismatch", "Error 6: Overflow",
                                                "Error 6: Overflow", "Error 6: Overflow",
                                                "Error 9: Subscript out of range"}));
}

// ShareFolder itself is covered in shares_test.
TEST(NodeInitialiseTest, SharesTheFolderGivenOrNoneAndMakesALocalAccount) {
  Recorder r;
  std::filesystem::path dir = std::filesystem::path(testing::TempDir()) / "qel_share_music";
  std::filesystem::create_directories(dir);
  r.node.Initialise("eta", 0, role_Peer, "", dir.string());
  NodeState& s = StateOf(r.node);
  ASSERT_EQ(s.SharedFolders.size(), 1u);
  EXPECT_EQ(s.SharedFolders[0].Name, "qel_share_music");
  r.node.Initialise("eta", 0, role_Peer, "", "  ");
  EXPECT_FALSE(s.SharingFiles);
  EXPECT_TRUE(r.errors.empty());

  ASSERT_FALSE(s.LocalAccount.empty());
  EXPECT_EQ(s.ActiveUser, s.LocalAccount);
  EXPECT_EQ(s.Users.GetSetting("Password", Variant("unset"), s.LocalAccount).toString(), "");
}

TEST(NodeEventsTest, AHandlerMayDestroyItsOwnNodeAndSwitchRoleChangesOnlyTheRole) {
  auto node = std::make_unique<cQEL>();
  node->Initialise("iota", 1, role_Server);
  const std::string before = Summary(*node);
  node->switchRole(role_Router);
  EXPECT_EQ(Summary(*node), "iota 1 2 " + before.substr(before.find('|')));

  int calls = 0;
  node->Error = [&](std::string&, std::string&) {
    ++calls;
    node.reset();
  };
  node->Initialise("theta", 0, role_Peer, "", "", Common({"filePacket=3000000"}));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(node, nullptr);
}

TEST(NodeConfirmTest, AFullQueueGivesUpTheOldestAndShutDownDropsTheNodesOwn) {
  ASSERT_EQ(PendingCount(), 0u);
  auto first = std::make_unique<cQEL>();
  std::vector<std::string> errors;
  first->Error = [&](std::string& message, std::string& nodeID) {
    errors.push_back(message + " | " + nodeID);
  };
  first->Initialise("kappa", 0, role_Peer, "", "", Common({"confirmMode=True"}));
  for (size_t i = 0; i <= kMaxPendingConfirmations; ++i) first->SendMessage("m", "NOBODY");
  EXPECT_EQ(PendingCount(), kMaxPendingConfirmations);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(errors[0].starts_with("MSG packet [ID: ")) << errors[0];
  EXPECT_TRUE(errors[0].ends_with("] to NOBODY dropped: the confirmation queue is full | NOBODY"))
      << errors[0];
  first->ShutDown();
  EXPECT_EQ(PendingCount(), 0u);

  // Another node's message held behind a dropped one goes out, and so can be
  // given up when nothing confirms it.
  first = std::make_unique<cQEL>();
  first->Initialise("kappa", 0, role_Peer, "", "", Common({"confirmMode=True"}));
  first->SendMessage("m", "NOBODY");
  cQEL second;
  second.Error = [&](std::string& message, std::string&) { errors.push_back(message); };
  second.Initialise("lambda", 0, role_Peer, "", "",
                    Common({"confirmMode=True", "confirmTimeout=50", "confirmRetry=0"}));
  second.SendMessage("held", "NOBODY");
  first.reset();
  EXPECT_EQ(PendingCount(), 1u);
  ASSERT_TRUE(RunUntil([&] { return errors.size() == 2; }, 10000));
  EXPECT_TRUE(errors[1].ends_with("] could not be delivered to NOBODY")) << errors[1];
  EXPECT_EQ(PendingCount(), 0u);
}

}  // namespace
}  // namespace qel
