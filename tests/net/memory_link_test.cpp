#include "net/memory_link.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "../support/peers.h"
#include "core/node_key.h"
#include "net/links.h"
#include "net/tls_engine.h"

namespace qel::test {
namespace {

struct Owner : LinkOwner {
  std::vector<std::string> bodies, faults;
  int ups = 0, downs = 0;
  bool Alive() const override { return true; }
  bool OnLinkRequest(const std::string&) override { return false; }
  void OnLinkUp(LinkId, LinkKind, const std::string&) override { ++ups; }
  void OnLinkDown(LinkId, const std::string&, const std::string&) override { ++downs; }
  void OnLinkMessage(LinkId, typMessage&& m) override {
    bodies.push_back(m.Wire.empty() ? m.Body : m.Wire.substr(m.Wire.find("\r\n\r\n") + 4));
  }
  void OnLinkFault(const std::string& text) override { faults.push_back(text); }
};

TEST(MemoryLinkTest, JoinedEndsCarryBytesBothWaysAndSeeTheOtherClose) {
  for (SecureMode mode : {SecureMode::Off, SecureMode::Require}) {
    SCOPED_TRACE(mode == SecureMode::Off ? "plaintext" : "TLS");
    const NodeKey dialKey = NodeKey::Fresh(), acceptKey = NodeKey::Fresh();
    LinkLimits dialLimits, acceptLimits;
    dialLimits.security = {.mode = mode, .identity = std::make_shared<const TlsIdentity>(dialKey)};
    acceptLimits.security = {.mode = mode,
                             .identity = std::make_shared<const TlsIdentity>(acceptKey)};
    auto dialler = std::make_shared<Owner>(), acceptor = std::make_shared<Owner>();
    const auto [dialled, accepted] = JoinInMemory(*dialler, dialLimits, *acceptor, acceptLimits);
    ASSERT_TRUE(Eventually([&] { return links::IsUp(dialled) && links::IsUp(accepted); }));
    if (mode != SecureMode::Off) {
      EXPECT_EQ(links::PeerKey(accepted), dialKey.ID());
    }

    links::Write(dialled, RawMsg("1", "", "to the acceptor"));
    links::Write(accepted, RawMsg("2", "", "to the dialler"));
    ASSERT_TRUE(Eventually([&] { return !dialler->bodies.empty() && !acceptor->bodies.empty(); }));
    EXPECT_EQ(acceptor->bodies, std::vector<std::string>{"to the acceptor"});
    EXPECT_EQ(dialler->bodies, std::vector<std::string>{"to the dialler"});

    // What was written just before the close still arrives, then the close.
    links::Write(accepted, RawMsg("3", "", "last words"));
    links::CloseAll(*acceptor);
    ASSERT_TRUE(Eventually([&] { return dialler->downs == 1; }));
    EXPECT_EQ(dialler->bodies.back(), "last words");
    EXPECT_FALSE(links::IsUp(dialled));
    EXPECT_EQ(dialler->ups + acceptor->ups, 2);
    EXPECT_TRUE(dialler->faults.empty() && acceptor->faults.empty());
  }
}

}  // namespace
}  // namespace qel::test
