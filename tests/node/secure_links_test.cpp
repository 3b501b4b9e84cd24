// Nodes whose links run under TLS, over loopback: the settings, node IDs bound to keys, and
// how a node that prefers TLS gets along with plaintext peers.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "../support/peers.h"
#include "net/tls_engine.h"

namespace qel::test {
namespace {

bool Has(const std::vector<std::string>& texts, const std::string& part) {
  for (const std::string& text : texts) {
    if (text.find(part) != std::string::npos) return true;
  }
  return false;
}

TEST(SecureLinksTest, SettingsThatDoNotReadLeaveTheNodeRequiringTls) {
  Peer mode("mode", Settings("secureMode=requir"));
  EXPECT_TRUE(Has(mode.errors, "Error 13: Type mismatch: advanced setting secureMode = \"requir\" "
                               "must be off, prefer or require"));
  EXPECT_EQ(StateOf(mode.node).Security.mode, SecureMode::Require);
  ASSERT_TRUE(StateOf(mode.node).Security.identity);
  EXPECT_TRUE(StateOf(mode.node).Security.identity->Valid());

  Peer trust("trust", Settings("trustedPeers=" + std::string(64, 'A') + ",nothex"));
  EXPECT_EQ(StateOf(trust.node).Security.mode, SecureMode::Require);
  EXPECT_FALSE(StateOf(trust.node).Security.trusted.empty());

  // Blanks and empty items go; IDs are compared in lower case.
  cSettings settings;
  settings.SaveSetting("secureMode", "Prefer");
  settings.SaveSetting("trustedPeers", ", " + std::string(64, 'A') + " ,");
  Peer fine("fine", settings.getXML());
  EXPECT_TRUE(fine.errors.empty());
  EXPECT_EQ(StateOf(fine.node).Security.trusted, std::vector<std::string>{std::string(64, 'a')});
}

TEST(SecureLinksTest, NodeIdAnnouncedUnderAnotherKeyIsRefusedAndCounted) {
  const std::string secure = Settings("secureMode=require");
  Peer a("a", secure, true), b("b", secure), c("c", secure);
  b.ConnectTo(a);
  const std::vector<typLinkInfo> links = a.node.Links();
  ASSERT_EQ(links.size(), 1u);
  EXPECT_TRUE(links[0].isSecure);
  EXPECT_EQ(links[0].PeerKey, b.node.KeyID());

  // c claims b's node ID with its own key.
  StateOf(c.node).NodeID = b.ID();
  const int64_t before = cQELStats().Refused("key-mismatch");
  ASSERT_TRUE(c.node.Connect(a.Address()));
  ASSERT_TRUE(Eventually([&] { return !c.closed.empty(); }));
  EXPECT_TRUE(Has(a.errors, "announced itself with key " + c.node.KeyID() +
                                ", but that node ID is bound to key " + b.node.KeyID()))
      << testing::PrintToString(a.errors);
  EXPECT_EQ(cQELStats().Refused("key-mismatch"), before + 1);
  ASSERT_EQ(a.node.Links().size(), 1u);
  EXPECT_EQ(a.node.Links()[0].PeerKey, b.node.KeyID());
}

TEST(SecureLinksTest, PreferringNodeTalksPlaintextToPeersWithoutTls) {
  // A plaintext peer dials it.
  Peer prefer("prefer", Settings("secureMode=prefer"), true);
  const int fd = Dial(prefer.Port());
  const std::string raw = RawMsg("r1", "", "from a raw peer");
  ASSERT_EQ(send(fd, raw.data(), raw.size(), 0), static_cast<ssize_t>(raw.size()));
  EXPECT_TRUE(Eventually([&] { return !prefer.messages.empty(); }));
  EXPECT_EQ(prefer.messages, std::vector<std::string>{"from a raw peer"});
  ASSERT_EQ(prefer.node.Links().size(), 1u);
  EXPECT_FALSE(prefer.node.Links()[0].isSecure);
  close(fd);

  // It dials a node with TLS off: refused there, it dials again in plaintext at once.
  Peer off("off", "", true), dialler("dialler", Settings("secureMode=prefer"));
  dialler.ConnectTo(off);
  ASSERT_EQ(dialler.node.Links().size(), 1u);
  EXPECT_FALSE(dialler.node.Links()[0].isSecure);
  EXPECT_EQ(dialler.node.Links()[0].PeerKey, "");
  EXPECT_TRUE(dialler.errors.empty()) << testing::PrintToString(dialler.errors);
  EXPECT_TRUE(Has(off.errors, "offered TLS, and secureMode is off"));
  dialler.node.SendMessage("after the fallback", off.ID());
  EXPECT_TRUE(Eventually([&] { return Has(off.messages, "after the fallback"); }));
}

}  // namespace
}  // namespace qel::test
