#include <qel/node.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <qel/settings.h>

#include "core/module.h"
#include "core/node_access.h"

namespace qel {
namespace {

NodeState& StateOf(cQEL& node) {
  return *TheModule().Slot(detail::NodeAccess::SlotIndex(node));
}

std::string Common(std::initializer_list<std::pair<const char*, Variant>> values) {
  cSettings settings;
  for (const auto& [key, value] : values) settings.SaveSetting(key, value);
  return settings.getXML();
}

// A node whose Error events are collected.
struct Recorder {
  cQEL node;
  std::vector<std::string> errors;
  Recorder() {
    node.Error = [this](std::string& message, std::string& nodeID) {
      EXPECT_EQ(nodeID, "");
      errors.push_back(message);
    };
  }
};

TEST(NodeInitialiseTest, DefaultsWithOnlyAName) {
  Recorder r;
  r.node.Initialise("alpha");
  const NodeState& s = StateOf(r.node);
  EXPECT_EQ(s.Name, "alpha");
  EXPECT_EQ(s.ListenPort, 0);
  EXPECT_EQ(s.Role, role_Peer);
  EXPECT_EQ(s.Timeout, 500);
  EXPECT_EQ(s.TTL, 20);
  EXPECT_FALSE(s.useEnc);
  EXPECT_EQ(s.netPass, "blankey");
  EXPECT_FALSE(s.useComp);
  EXPECT_FALSE(s.seeSelf);
  EXPECT_TRUE(s.announceSelf);
  EXPECT_EQ(s.maxRoutes, 10);
  EXPECT_TRUE(s.RoutingOn);
  EXPECT_FALSE(s.confirmMode);
  EXPECT_EQ(s.confirmTimeout, 30000);
  EXPECT_EQ(s.confirmRetry, 2);
  EXPECT_EQ(s.FilePacketBytes, 262144);
  EXPECT_TRUE(s.Routes.Enabled());
  EXPECT_EQ(s.SeenIDs.Capacity(), 50);
  EXPECT_FALSE(s.SharingFiles);
  EXPECT_NE(s.NodeID, s.EncryptionKey);
  EXPECT_GE(s.NodeID.size(), 24u);
  EXPECT_TRUE(r.errors.empty());
}

TEST(NodeInitialiseTest, AdvancedSettingsOverrideOnlyWhatTheyName) {
  Recorder r;
  r.node.Initialise("beta", 4100, role_Router, "desc", "", Common({{"TTL", 5}}));
  const NodeState& s = StateOf(r.node);
  EXPECT_EQ(s.TTL, 5);
  EXPECT_EQ(s.Timeout, 500);
  EXPECT_EQ(s.ListenPort, 4100);
  EXPECT_EQ(s.Role, role_Router);
  EXPECT_EQ(s.Descriptor, "desc");

  r.node.Initialise("beta", 0, role_Peer, "", "",
                    Common({{"Timeout", 900},
                            {"useEnc", true},
                            {"netPass", "secret"},
                            {"useComp", "TRUE"},
                            {"seeSelf", -1},
                            {"announceSelf", false},
                            {"maxRoutes", 0},
                            {"confirmMode", true},
                            {"confirmTimeout", 100},
                            {"confirmRetry", 7},
                            {"filePacket", 4},
                            {"packetCache", 3}}));
  EXPECT_EQ(s.Timeout, 900);
  EXPECT_EQ(s.TTL, 20);  // back to its default on a new Initialise
  EXPECT_TRUE(s.useEnc);
  EXPECT_EQ(s.netPass, "secret");
  EXPECT_TRUE(s.useComp);
  EXPECT_TRUE(s.seeSelf);
  EXPECT_FALSE(s.announceSelf);
  EXPECT_EQ(s.maxRoutes, 0);
  EXPECT_FALSE(s.RoutingOn);
  EXPECT_FALSE(s.Routes.Enabled());
  EXPECT_TRUE(s.confirmMode);
  EXPECT_EQ(s.confirmTimeout, 100);
  EXPECT_EQ(s.confirmRetry, 7);
  EXPECT_EQ(s.FilePacketBytes, 4096);
  EXPECT_EQ(s.SeenIDs.Capacity(), 3);
  EXPECT_TRUE(r.errors.empty());
}

TEST(NodeInitialiseTest, ReinitialisingMakesANewIdentity) {
  Recorder r;
  r.node.Initialise("gamma");
  std::string id = StateOf(r.node).NodeID, key = StateOf(r.node).EncryptionKey;
  r.node.Initialise("gamma");
  EXPECT_NE(StateOf(r.node).NodeID, id);
  EXPECT_NE(StateOf(r.node).EncryptionKey, key);
}

TEST(NodeInitialiseTest, TextThatIsNotSettingsLeavesEveryDefaultSilently) {
  Recorder r;
  r.node.Initialise("delta", 0, role_Peer, "", "", "<Settings><Common><TTL>5");
  EXPECT_EQ(StateOf(r.node).TTL, 20);
  EXPECT_EQ(StateOf(r.node).netPass, "blankey");
  EXPECT_TRUE(r.errors.empty());
}

TEST(NodeInitialiseTest, ConversionFaultStopsAtThatKeyAndIsReported) {
  Recorder r;
  r.node.Initialise("eps", 0, role_Peer, "", "",
                    Common({{"TTL", 9}, {"useComp", "maybe"}, {"maxRoutes", 3}}));
  ASSERT_EQ(r.errors.size(), 1u);
  EXPECT_EQ(r.errors[0], "Error 13: Type mismatch");
  const NodeState& s = StateOf(r.node);
  EXPECT_EQ(s.TTL, 9);         // read before the fault
  EXPECT_EQ(s.maxRoutes, 10);  // never reached
  EXPECT_FALSE(s.NodeID.empty());
}

TEST(NodeInitialiseTest, OverflowsAreFaults) {
  Recorder r;
  r.node.Initialise("zeta", 0, role_Peer, "", "", Common({{"filePacket", 2097152}}));
  r.node.Initialise("zeta", 0, role_Peer, "", "", Common({{"maxRoutes", 40000}}));
  r.node.Initialise("zeta", 0, role_Peer, "", "", Common({{"Timeout", "99999999999"}}));
  r.node.Initialise("zeta", 0, role_Peer, "", "", Common({{"packetCache", -5}}));
  EXPECT_EQ(r.errors,
            (std::vector<std::string>{"Error 6: Overflow", "Error 6: Overflow", "Error 6: Overflow",
                                      "Error 9: Subscript out of range"}));
}

TEST(NodeInitialiseTest, SharesTheFolderGivenOrNone) {
  Recorder r;
  std::filesystem::path dir = std::filesystem::path(testing::TempDir()) / "qel_share_music";
  std::filesystem::create_directories(dir);
  r.node.Initialise("eta", 0, role_Peer, "", dir.string() + "/");
  NodeState& s = StateOf(r.node);
  ASSERT_TRUE(s.SharingFiles);
  ASSERT_EQ(s.SharedFolders.size(), 1u);
  EXPECT_EQ(s.SharedFolders[0].Path, dir.string());
  EXPECT_EQ(s.SharedFolders[0].Name, "qel_share_music");
  r.node.shareFolder(dir.string());
  EXPECT_EQ(s.SharedFolders.size(), 2u);  // the same folder twice is kept twice
  r.node.shareFolder("   ");
  r.node.shareFolder((dir / "missing").string());
  EXPECT_EQ(s.SharedFolders.size(), 2u);

  r.node.Initialise("eta", 0, role_Peer, "", "  ");
  EXPECT_FALSE(s.SharingFiles);
  EXPECT_EQ(s.SharedFolders.size(), 1u);
  EXPECT_TRUE(r.errors.empty());
}

TEST(NodeCreationTest, LocalAccountIsAUserWithAnEmptyPassword) {
  cQEL node;
  NodeState& s = StateOf(node);
  ASSERT_FALSE(s.LocalAccount.empty());
  EXPECT_LE(s.LocalAccount.size(), 24u);
  EXPECT_EQ(s.ActiveUser, s.LocalAccount);
  auto sections = s.Users.ListSections(true);
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(sections[1], s.LocalAccount);
  EXPECT_EQ(s.Users.GetSetting("Password", {}, s.LocalAccount).toString(), "");
  EXPECT_EQ(s.Users.GetSetting("Authority", {}, s.LocalAccount).toString(), "");
  EXPECT_EQ(s.Users.GetSetting("Updated", {}, s.LocalAccount).toString().size(), 19u);
}

TEST(NodeEventsTest, AHandlerMayDestroyItsOwnNode) {
  auto node = std::make_unique<cQEL>();
  int calls = 0;
  node->Error = [&](std::string& message, std::string&) {
    ++calls;
    EXPECT_EQ(message, "Error 6: Overflow");
    node.reset();
  };
  node->Initialise("theta", 0, role_Peer, "", "", Common({{"filePacket", 3000000}}));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(node, nullptr);
}

TEST(NodeEventsTest, SwitchRoleChangesOnlyTheRole) {
  cQEL node;
  node.Initialise("iota", 1, role_Server);
  std::string id = StateOf(node).NodeID;
  node.switchRole(role_Router);
  EXPECT_EQ(StateOf(node).Role, role_Router);
  EXPECT_EQ(StateOf(node).NodeID, id);
}

}  // namespace
}  // namespace qel
