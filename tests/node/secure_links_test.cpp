// Nodes whose links run under TLS, over loopback: the settings, node IDs bound to keys, and
// how a node that prefers TLS gets along with one without.
#include <gtest/gtest.h>

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
  Peer trust("trust", Settings("trustedPeers=" + std::string(64, 'a') + ",nothex"));
  for (Peer* p : {&mode, &trust}) {
    EXPECT_EQ(StateOf(p->node).Security.mode, SecureMode::Require);
    EXPECT_TRUE(StateOf(p->node).Security.identity);
  }
  EXPECT_FALSE(StateOf(trust.node).Security.trusted.empty());
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

TEST(SecureLinksTest, PreferringNodeFallsBackToPlaintextWithANodeWithoutTls) {
  // Refused there as TLS, it dials again in plaintext at once and says nothing of it.
  Peer off("off", "", true), prefer("prefer", Settings("secureMode=prefer"));
  prefer.ConnectTo(off);
  ASSERT_EQ(prefer.node.Links().size(), 1u);
  EXPECT_FALSE(prefer.node.Links()[0].isSecure);
  EXPECT_EQ(prefer.node.Links()[0].PeerKey, "");
  EXPECT_TRUE(prefer.errors.empty()) << testing::PrintToString(prefer.errors);
  EXPECT_TRUE(Has(off.errors, "offered TLS, and secureMode is off"));
  prefer.node.SendMessage("after the fallback", off.ID());
  EXPECT_TRUE(Eventually([&] { return Has(off.messages, "after the fallback"); }));
}

// Messages decrypted in loops one and two levels down, while those of earlier reads wait
// where they were decrypted: those keep their bytes (ASan: none read once gone).
TEST(SecureLinksTest, MessagesWaitingBehindHandlersKeepTheirBytesWhileTheLoopReadsMore) {
  const std::string secure = Settings("secureMode=require");
  Peer target("target", Settings("secureMode=require Timeout=20"), true), peer("peer", secure),
      flood("flood", secure);
  peer.ConnectTo(target);
  flood.ConnectTo(target);
  ExpectOrderWhileHandlersRunTheLoop(target, [&](bool toFlood, const std::string& tag, int count,
                                                  size_t size) {
    for (int i = 0; i < count; ++i) {
      (toFlood ? flood : peer).node.SendMessage(tag + std::to_string(i) + std::string(size, '.'),
                                                target.ID());
    }
  });
}

}  // namespace
}  // namespace qel::test
