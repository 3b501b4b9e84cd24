// The node object: Initialise and its settings, events, confirmations, the
// module slots behind it and the debug switch.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <qel/advanced_settings.h>

#include "../support/error_text.h"
#include "../support/peers.h"
#include "files/shares.h"
#include "node/user_settings.h"
#include "routing/confirm.h"

namespace qel::test {
namespace {

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

TEST(NodeInitialiseTest, AdvancedSettingsOverrideOnlyWhatTheyNameAndEachTimeAnew) {
  Peer r("alpha");
  const std::string defaults = Summary(r.node);
  const std::string id = r.ID(), key = StateOf(r.node).EncryptionKey;
  EXPECT_NE(id, key);

  r.node.Initialise("beta", 4100, role_Router, "desc", "",
                    Settings("Timeout=900 useEnc=True netPass=secret useComp=TRUE seeSelf=-1 "
                             "announceSelf=False maxRoutes=0 confirmMode=True confirmTimeout=100 "
                             "confirmRetry=7 filePacket=4 packetCache=3 maxMessage=99"));
  EXPECT_EQ(Summary(r.node),
            "beta 4100 2 desc|Timeout=900 TTL=" + std::to_string(StateOf(r.node).TTL) +
                " useEnc=1 secret useComp=1 seeSelf=1 announceSelf=0 maxRoutes=0 "
                "00 confirm=1 100 7 filePacket=4096 packetCache=3 maxMessage=99");
  // Every Initialise makes a new identity and forgets earlier settings, all
  // but the pass phrase.
  EXPECT_NE(r.ID(), id);
  EXPECT_NE(StateOf(r.node).EncryptionKey, key);
  r.node.Initialise("alpha");
  std::string expected = defaults;
  expected.replace(expected.find(" blankey "), 9, " secret ");
  EXPECT_EQ(Summary(r.node), expected);
  EXPECT_TRUE(r.errors.empty());
}

TEST(NodeInitialiseTest, ForeignTextAndBadValuesAreReportedWithTheirKeys) {
  Peer r("delta");
  const std::string defaults = Summary(r.node);
  // Neither loads as settings; both leave every default and say why.
  r.node.Initialise("delta", 0, role_Peer, "", "", "<Settings><Common><TTL>5");
  r.node.Initialise("delta", 0, role_Peer, "", "", "TTL=5");
  EXPECT_EQ(Summary(r.node), defaults);
  const std::string foreign =
      "Error 4: Corrupt or incompatible XMLSettings file: advancedSettings is not a settings "
      "text: ";
  EXPECT_EQ(r.errors, (std::vector<std::string>{
                          foreign + "it does not load (Error 4: Corrupt or incompatible "
                                    "XMLSettings file)",
                          foreign + "text outside any entry: \"TTL=5\""}));
  r.errors.clear();

  // A conversion fault stops reading at that key: TTL was read before it,
  // maxRoutes never.
  r.node.Initialise("eps", 0, role_Peer, "", "", Settings("TTL=9 useComp=maybe maxRoutes=3"));
  EXPECT_EQ(StateOf(r.node).TTL, 9);
  EXPECT_NE(StateOf(r.node).maxRoutes, 3);
  EXPECT_FALSE(r.ID().empty());
  for (const char* bad :
       {"filePacket=2097152", "maxRoutes=40000", "Timeout=99999999999", "packetCache=-5"}) {
    r.node.Initialise("zeta", 0, role_Peer, "", "", Settings(bad));
  }
  EXPECT_EQ(r.errors,
            (std::vector<std::string>{
                "Error 13: Type mismatch: advanced setting useComp = \"maybe\" must be True or "
                "False",
                "Error 6: Overflow: advanced setting filePacket = \"2097152\" must be an integer "
                "from 1 to 2097151",
                "Error 6: Overflow: advanced setting maxRoutes = \"40000\" must be an integer "
                "from 0 to 32767",
                "Error 6: Overflow: advanced setting Timeout = \"99999999999\" must be an "
                "integer from 0 to 2147483647",
                "Error 9: Subscript out of range: advanced setting packetCache = \"-5\" must be 0 "
                "or more"}));
}

// A key file is made private and atomically, keeps the node's key ID from
// one start to the next, and one that holds no key leaves the node keyless
// rather than under another identity.
TEST(NodeInitialiseTest, KeyFileIsCreatedPrivateReloadedAndRefusedWhenGarbage) {
  const auto folder = std::filesystem::path(testing::TempDir()) /
                      ("qel_keys_" + std::to_string(getpid()));
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  const std::string path = (folder / "node.pem").string();

  Peer r("key", Settings("keyFile=" + path));
  const std::string id = r.node.KeyID();
  EXPECT_EQ(id.size(), 64u);
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  // Only the key is left: the temporary it was written to is gone.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
  r.node.Initialise("key", 0, role_Peer, "", "", Settings("keyFile=" + path));
  EXPECT_EQ(r.node.KeyID(), id);
  Peer other("other");
  EXPECT_EQ(other.node.KeyID().size(), 64u);
  EXPECT_NE(other.node.KeyID(), id);

  std::ofstream(path, std::ios::trunc) << "garbage\n";
  // The key is taken even past a bad value of another setting.
  r.node.Initialise("key", 0, role_Peer, "", "", Settings("TTL=x keyFile=" + path));
  EXPECT_EQ(r.node.KeyID(), "");
  EXPECT_EQ(r.errors, (std::vector<std::string>{
                          "Error 13: Type mismatch: advanced setting TTL = \"x\" must be an "
                          "integer from 0 to 2147483647",
                          "Error 4: Bad key file: advanced setting keyFile: " + path +
                              " holds no PEM private key"}));
  std::filesystem::remove_all(folder);
}

TEST(NodeInitialiseTest, SharesTheFoldersThatExistAndMakesALocalAccount) {
  const auto base = std::filesystem::path(testing::TempDir()) / "qel_shares";
  std::filesystem::create_directories(base / "docs");
  std::vector<typSharedFolder> folders;
  bool sharing = false;
  for (std::string path : {std::string("   "), (base / "missing").string(),
                           (base / "docs").string() + "/", (base / "docs").string()}) {
    ShareFolder(folders, sharing, path);
  }
  ASSERT_EQ(folders.size(), 2u);  // the same folder twice is kept twice
  EXPECT_EQ(folders[0].Path, (base / "docs").string());
  EXPECT_EQ(folders[0].Name, "docs");
  EXPECT_TRUE(sharing);
  EXPECT_EQ(LastPathPart("a\\b/c"), "c");
  EXPECT_EQ(LastPathPart("plain"), "plain");

  Peer r("eta");
  r.node.Initialise("eta", 0, role_Peer, "", (base / "docs").string());
  NodeState& s = StateOf(r.node);
  ASSERT_EQ(s.Files.Folders.size(), 1u);
  EXPECT_EQ(s.Files.Folders[0].Name, "docs");
  r.node.Initialise("eta", 0, role_Peer, "", "  ");
  EXPECT_FALSE(s.SharingFiles);
  EXPECT_TRUE(r.errors.empty());
  ASSERT_FALSE(s.LocalAccount.empty());
  EXPECT_EQ(s.ActiveUser, s.LocalAccount);
  EXPECT_EQ(s.Users.List.GetSetting("Password", Variant("unset"), s.LocalAccount).toString(), "");
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
  node->Initialise("theta", 0, role_Peer, "", "", Settings("filePacket=3000000"));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(node, nullptr);
}

// A host handler that throws must not stop its node.
TEST(EventsTest, AThrowingHandlerIsReportedAndTheNodeKeepsServing) {
  Peer a("a", "", true), b("b");
  b.ConnectTo(a);
  a.node.MessageReceived = [&](std::string& text, std::string&, std::string&) {
    a.messages.push_back(text);
    throw std::runtime_error("host bug");
  };
  a.node.Error = [&](std::string& text, std::string&) {
    a.errors.push_back(text);
    throw 42;
  };

  testing::internal::CaptureStderr();
  b.node.SendMessage("one", a.ID());
  b.node.SendMessage("oops", a.ID(), "ERROR");
  b.node.SendMessage("two", a.ID());
  const bool arrived = Eventually([&] { return a.messages.size() == 2; });
  const std::string said = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(arrived);
  EXPECT_EQ(a.messages, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(a.errors, (std::vector<std::string>{"oops"}));
  EXPECT_NE(said.find("QEL: the MessageReceived handler threw (Error 5: host bug)"),
            std::string::npos)
      << said;
  EXPECT_NE(said.find("QEL: the Error handler threw (Error 5: Unknown fault)"), std::string::npos)
      << said;

  // Its listener still takes new connections.
  Peer c("c");
  c.ConnectTo(a);
  c.node.SendMessage("three", a.ID());
  ASSERT_TRUE(Eventually([&] { return a.messages.size() == 3; }));
}

TEST(NodeConfirmTest, AFullQueueGivesUpTheOldestAndShutDownDropsTheNodesOwn) {
  ASSERT_EQ(PendingCount(), 0u);
  const std::string confirm = Settings("confirmMode=True");
  auto first = std::make_unique<Peer>("kappa", confirm);
  first->node.Error = [&](std::string& message, std::string& nodeID) {
    first->errors.push_back(message + " | " + nodeID);
  };
  for (size_t i = 0; i <= kMaxPendingConfirmations; ++i) first->node.SendMessage("m", "NOBODY");
  EXPECT_EQ(PendingCount(), kMaxPendingConfirmations);
  ASSERT_EQ(first->errors.size(), 1u);
  EXPECT_TRUE(first->errors[0].starts_with("MSG packet [ID: ")) << first->errors[0];
  EXPECT_TRUE(
      first->errors[0].ends_with("] to NOBODY dropped: the confirmation queue is full | NOBODY"))
      << first->errors[0];
  first->node.ShutDown();
  EXPECT_EQ(PendingCount(), 0u);

  // Another node's message held behind a dropped one goes out, and so can be
  // given up when nothing confirms it.
  first = std::make_unique<Peer>("kappa", confirm);
  first->node.SendMessage("m", "NOBODY");
  Peer second("lambda", Settings("confirmMode=True confirmTimeout=50 confirmRetry=0"));
  second.node.SendMessage("held", "NOBODY");
  first.reset();
  EXPECT_EQ(PendingCount(), 1u);
  ASSERT_TRUE(Eventually([&] { return second.errors.size() == 1; }));
  EXPECT_TRUE(second.errors[0].ends_with("] could not be delivered to NOBODY")) << second.errors[0];
  EXPECT_EQ(PendingCount(), 0u);
}

std::string TempStore(const std::string& name) {
  auto path = std::filesystem::path(testing::TempDir()) / name / "settings.xml";
  std::filesystem::remove_all(path.parent_path());
  return path.string();
}

TEST(DebugModeTest, OpensOnceWhenTheUserSwitchSaysTrue) {
  DebugLog log;
  for (std::string value : {"", "False", "perhaps"}) {
    UserSettings store(TempStore("qel_dbg_" + value));
    if (!value.empty()) store.Set("debug", "enabled", value);
    CheckDebugMode(log, store, "10.0.0.1");
    EXPECT_FALSE(log.Enabled()) << value;
  }
  UserSettings on(TempStore("qel_dbg_on"));
  on.Set("debug", "enabled", "true");
  CheckDebugMode(log, on, "10.0.0.1");
  ASSERT_TRUE(log.Enabled());
  const std::string text = log.Text();
  EXPECT_TRUE(text.starts_with("Entered QEL Debug Mode 20"));
  EXPECT_TRUE(text.ends_with("Local Address: 10.0.0.1\r\n\r\n"));
  CheckDebugMode(log, on, "10.0.0.2");  // a second node object: nothing new
  EXPECT_EQ(log.Text(), text);
}

TEST(UserSettingsTest, KeepsOtherValuesWhenOneIsWritten) {
  UserSettings store(TempStore("qel_user_store"));
  EXPECT_EQ(store.Get("debug", "width", "7200"), "7200");
  store.Set("debug", "width", "100");
  store.Set("debug", "height", "200");
  EXPECT_EQ(store.Get("DEBUG", "Width", "7200"), "100");
  EXPECT_EQ(store.Get("debug", "height", ""), "200");
}

std::string Describe(const std::vector<SettingProblem>& problems) {
  std::string text;
  for (const auto& p : problems) {
    text += (p.isError ? "error " : "warning ") + p.key + "=" + p.value + ": " + p.message + "\n";
  }
  return text;
}

TEST(AdvancedSettingsTest, CheckNamesWrongTypesRangesAndUnknownKeys) {
  EXPECT_EQ(Describe(CheckAdvancedSettings("")), "");
  // Keys match in any case; only section Common is read.
  EXPECT_EQ(Describe(CheckAdvancedSettings(Settings("ttl=5 USECOMP=true"))), "");
  cSettings other;
  other.SaveSetting("Colour", "red", "Other");
  EXPECT_EQ(Describe(CheckAdvancedSettings(other.getXML())), "");

  EXPECT_EQ(Describe(CheckAdvancedSettings(
                Settings("TTL=many useEnc=maybe Timeout=-1 maxRoutes=40000 filePacket=2097152 "
                         "Tiemout=900 netPass=any:text secureMode=sometimes trustedPeers=ab,"))),
            "error TTL=many: must be an integer from 0 to 2147483647\n"
            "error useEnc=maybe: must be True or False\n"
            "error Timeout=-1: must be an integer from 0 to 2147483647\n"
            "error maxRoutes=40000: must be an integer from 0 to 32767\n"
            "error filePacket=2097152: must be an integer from 1 to 2097151\n"
            "warning Tiemout=900: not a setting, ignored\n"
            "error secureMode=sometimes: must be off, prefer or require\n"
            "error trustedPeers=ab,: must be key IDs (64 hex digits each) separated by commas\n");

  auto corrupt = CheckAdvancedSettings("<Settings><Common><TTL>5");
  ASSERT_EQ(corrupt.size(), 1u);
  EXPECT_TRUE(corrupt[0].isError);
  EXPECT_NE(corrupt[0].message.find("Error 4"), std::string::npos) << corrupt[0].message;
}

// A check that lets a value through must not leave Initialise to fail on it.
TEST(AdvancedSettingsTest, InitialiseTakesEveryValueTheCheckAccepts) {
  Peer n("n");
  for (const AdvancedSetting& s : AdvancedSettingsTable()) {
    std::vector<std::string> values{std::string(s.defaultValue)};
    if (s.type != SettingType::Boolean && s.type != SettingType::Text) {
      values = {std::to_string(s.min), std::to_string(s.max)};
    }
    for (const std::string& value : values) {
      const std::string text = Settings(std::string(s.key) + "=" + value);
      EXPECT_EQ(Describe(CheckAdvancedSettings(text)), "");
      n.node.Initialise("n", 0, role_Peer, "", "", text);
      EXPECT_TRUE(n.errors.empty()) << s.key << "=" << value << ": " << n.errors.front();
      n.errors.clear();
    }
  }
}

const std::string kInvalid =
    "-2147221502 switchSession: Cannot switch to session. Invalid session index: ";

int32_t SlotOf(cQEL& node) {
  return detail::NodeAccess::SlotIndex(node);
}

TEST(ModuleGuardTest, RefusesCallsBeforeSetUpAndForSlotsThatDoNotExist) {
  Module module;
  EXPECT_EQ(ErrorText([&] { module.SwitchSession(1, true); }),
            "-2147221503 switchSession: QEL not initialised");
  module.Init();
  for (int32_t bad : {0, -1, 1}) {
    EXPECT_EQ(ErrorText([&] { module.SwitchSession(bad, true); }), kInvalid + std::to_string(bad));
  }
  cQEL node;
  node.ShutDown();
  EXPECT_EQ(ErrorText([&] { node.switchRole(role_Server); }), kInvalid + "-1");
}

TEST(ModuleSlotsTest, ShutDownRenumbersOnlyLaterNodesAndKeepsTheirState) {
  auto a = std::make_unique<cQEL>(), b = std::make_unique<cQEL>(), c = std::make_unique<cQEL>();
  const int32_t base = SlotOf(*a);
  ASSERT_EQ(SlotOf(*c), base + 2);
  a->Initialise("a");
  c->Initialise("c");
  const std::string idA = StateOf(*a).NodeID, idC = StateOf(*c).NodeID;

  b->ShutDown();
  EXPECT_EQ(SlotOf(*a), base);
  EXPECT_EQ(SlotOf(*c), base + 1);
  EXPECT_EQ(StateOf(*a).NodeID, idA);
  b.reset();  // destroying a shut-down node is harmless
  a.reset();  // destroying a live one shuts it down

  EXPECT_EQ(SlotOf(*c), base);
  EXPECT_FALSE(TheModule().IsValidSlot(base + 1));
  c->switchRole(role_Router);
  EXPECT_EQ(StateOf(*c).NodeID, idC);
  EXPECT_EQ(StateOf(*c).Owner, c.get());
}

TEST(NodeConnectTest, AFailedConnectSaysWhy) {
  Peer host("host", Settings("Timeout=5000"));  // time enough to look a name up
  uint16_t closedPort = 0;
  close(ListenRaw(closedPort, 1));  // a port nobody listens on any more
  const std::string refused = "127.0.0.1:" + std::to_string(closedPort);
  for (const std::string& address : {refused, std::string("no-such-host.invalid:4000"),
                                     std::string("garbage"), std::string("127.0.0.1:http")}) {
    EXPECT_FALSE(host.node.Connect(address)) << address;
  }
  ASSERT_EQ(host.errors.size(), 4u);
  EXPECT_EQ(host.errors[0], "Connect to " + refused + " failed: connection refused");
  EXPECT_EQ(
      host.errors[1].rfind("Connect to no-such-host.invalid:4000 failed: host not found (", 0), 0u)
      << host.errors[1];
  // Without a port a node dials its own listen port; this one has none.
  EXPECT_EQ(host.errors[2],
            "Connect to garbage failed: malformed address (no port, and the node listens on none "
            "to dial instead)");
  EXPECT_EQ(host.errors[3],
            "Connect to 127.0.0.1:http failed: malformed address (the port is not a number)");
  EXPECT_FALSE(host.node.isConnected());
}

// The loop's thread is the one that made the first node; any other is refused
// at every entry point before anything is touched.
TEST(NodeThreadTest, CallsFromAnotherThreadThrowNamingTheRule) {
  Peer here("here");
  cQELStats stats;
  const std::vector<std::pair<std::string, std::function<void()>>> calls = {
      {"cQEL::NodeID", [&] { here.node.NodeID(); }},
      {"cQEL::Links", [&] { here.node.Links(); }},
      {"cQEL::Connect", [&] { here.node.Connect("127.0.0.1:1"); }},
      {"cQEL::cQEL", [] { cQEL another; }},
      {"cQELStats", [&] { stats.InPacketCount(); }},
      {"DoEvents", [] { DoEvents(); }},
  };
  std::vector<std::string> refusals;
  std::thread other([&] {
    for (const auto& [name, call] : calls) {
      try {
        call();
        refusals.push_back(name + " ran");
      } catch (const QelError& e) {
        const bool rule = e.Number == errors::kWrongThread &&
                          e.Description.find("called on a thread other than the event loop's") !=
                              std::string::npos;
        refusals.push_back(e.Source + (rule ? "" : " without the rule: " + e.Description));
      }
    }
  });
  other.join();
  std::vector<std::string> expected;
  for (const auto& call : calls) expected.push_back(call.first);
  EXPECT_EQ(refusals, expected);
  EXPECT_FALSE(here.node.NodeID().empty());  // this thread goes on as before
  EXPECT_TRUE(here.errors.empty());
}

}  // namespace
}  // namespace qel::test
