#include "net/link_transform.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../support/peers.h"
#include "core/node_key.h"
#include "net/links.h"
#include "net/memory_link.h"
#include "net/socket.h"

namespace qel::test {
namespace {

// What the table tells one end of a link; each end announces itself once up, as nodes do.
struct Owner : LinkOwner {
  std::vector<std::string> faults, bodies;
  int ups = 0;
  std::function<void(LinkId)> onUp;
  bool Alive() const override { return true; }
  bool OnLinkRequest(const std::string&) override { return false; }
  void OnLinkUp(LinkId link, LinkKind, const std::string&) override {
    ++ups;
    if (onUp) onUp(link);
  }
  void OnLinkDown(LinkId, const std::string&, const std::string&) override {}
  // A plaintext message arrives unparsed: its body is after the header.
  void OnLinkMessage(LinkId, typMessage&& m) override {
    bodies.push_back(m.Wire.empty() ? m.Body : m.Wire.substr(m.Wire.find("\r\n\r\n") + 4));
  }
  void OnLinkFault(const std::string& text) override { faults.push_back(text); }
};

// One end of an in-memory link, and everything it ever sent.
struct End {
  NodeKey key = NodeKey::Fresh();
  std::shared_ptr<Owner> owner = std::make_shared<Owner>();
  std::shared_ptr<std::string> sent = std::make_shared<std::string>();
  std::string wire;
  LinkLimits limits;
  LinkId link;

  explicit End(SecureMode mode, std::vector<std::string> trusted = {}, std::string hello = "") {
    limits.security = {.mode = mode,
                       .identity = std::make_shared<const TlsIdentity>(key),
                       .trusted = std::move(trusted)};
    if (hello.empty()) return;
    owner->onUp = [hello](LinkId link) { links::Write(link, RawMsg("m", "", hello)); };
  }
  void Open(bool accepted) { link = OpenInMemory(*owner, limits, accepted, sent); }
  bool Open() { return !ClosedInMemory(link); }
  void Receive(std::string_view bytes) { ReceiveInMemory(link, bytes); }
  // What it sent since the last call, once its writes were flushed (and so sealed).
  std::string Take() {
    FlushPendingWrites();
    wire += *sent;
    return std::exchange(*sent, {});
  }
  bool Faulted(const std::string& text) {
    for (const std::string& fault : owner->faults) {
      if (fault.find(text) != std::string::npos) return true;
    }
    return false;
  }
};

// Moves bytes both ways until neither end has anything more to send.
void Pump(End& a, End& b) {
  for (int round = 0; round < 20; ++round) {
    const std::string ab = a.Take(), ba = b.Take();
    if (ab.empty() && ba.empty()) return;
    b.Receive(ab);
    a.Receive(ba);
  }
  ADD_FAILURE() << "the ends never went quiet";
}

TEST(LinkTransformTest, TlsLinkComesUpOnlyAfterTheHandshakeAndSealsEachBatchOnce) {
  End dialler(SecureMode::Require, {}, "from the dialler");
  End listener(SecureMode::Prefer, {}, "from the listener");
  listener.Open(true);
  dialler.Open(false);
  // Neither is up before the handshake; the listener says nothing before the first byte.
  EXPECT_EQ(dialler.owner->ups + listener.owner->ups, 0);
  EXPECT_EQ(listener.Take(), "");
  EXPECT_FALSE(links::IsUp(dialler.link));

  Pump(dialler, listener);
  EXPECT_EQ(listener.owner->bodies, std::vector<std::string>{"from the dialler"});
  EXPECT_EQ(dialler.owner->bodies, std::vector<std::string>{"from the listener"});
  const typLinkInfo seen = links::Info(dialler.link);
  EXPECT_TRUE(seen.isSecure);
  EXPECT_EQ(seen.PeerKey, listener.key.ID());
  EXPECT_EQ(links::PeerKey(listener.link), dialler.key.ID());
  EXPECT_EQ((dialler.wire + listener.wire).find("from the"), std::string::npos);

  // A burst of writes waits as plaintext, counted as queued, and leaves in one record
  // (5 bytes of header and 17 of type and tag over the plaintext).
  size_t written = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string message = RawMsg(std::to_string(i), "", "burst");
    links::Write(dialler.link, message);
    written += message.size();
  }
  EXPECT_GE(links::QueuedBytes(dialler.link), written);
  const std::string sealed = dialler.Take();
  EXPECT_EQ(sealed.size(), written + 22);
  listener.Receive(sealed);
  EXPECT_EQ(listener.owner->bodies.size(), 101u);

  // A body of many records, its bytes cut anywhere on the way, is decrypted whole into
  // place, and the message after it still arrives.
  std::string large(200000, '\0');
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>('a' + i % 23);
  links::WriteOwned(dialler.link, RawMsg("big", "", large));
  links::Write(dialler.link, RawMsg("after", "", "after"));
  const std::string bytes = dialler.Take();
  for (size_t at = 0; at < bytes.size(); at += 999) listener.Receive(bytes.substr(at, 999));
  ASSERT_EQ(listener.owner->bodies.size(), 103u);
  EXPECT_TRUE(listener.owner->bodies[101] == large);
  EXPECT_EQ(listener.owner->bodies[102], "after");
}

TEST(LinkTransformTest, UntrustedKeyIsRefusedBothWaysNamingIt) {
  const std::string stranger = NodeKey::Fresh().ID();
  // The dialler judges the listener's key during the handshake: neither comes up.
  End listener(SecureMode::Require), dialler(SecureMode::Require, {stranger});
  listener.Open(true);
  dialler.Open(false);
  Pump(dialler, listener);
  EXPECT_EQ(dialler.owner->ups + listener.owner->ups, 0);
  EXPECT_TRUE(dialler.Faulted("refused peer key " + listener.key.ID()));
  EXPECT_TRUE(listener.Faulted("refused this node's key " + listener.key.ID()));
  EXPECT_FALSE(dialler.Open() || listener.Open());

  // The listener judges the dialler's key after the dialler's handshake ended: the dialler
  // waits for the listener's word (its ticket) before it calls the link up, so it never does.
  End judge(SecureMode::Require, {stranger}), judged(SecureMode::Prefer, {}, "secret");
  judge.Open(true);
  judged.Open(false);
  Pump(judged, judge);
  EXPECT_EQ(judge.owner->ups + judged.owner->ups, 0);
  EXPECT_TRUE(judge.owner->bodies.empty());
  EXPECT_TRUE(judge.Faulted("refused peer key " + judged.key.ID()));
  EXPECT_TRUE(judged.Faulted("refused this node's key " + judged.key.ID()));
  EXPECT_FALSE(judged.Open() || judge.Open());
}

TEST(LinkTransformTest, FirstBytesOfAnAcceptedLinkDecideWhatItIsWhereverTheyAreCut) {
  const std::string plain = RawMsg("1", "", "in plaintext");
  for (size_t cut = 1; cut <= 20; ++cut) {
    SCOPED_TRACE("cut at " + std::to_string(cut));
    End tls(SecureMode::Prefer), dialler(SecureMode::Prefer, {}, "over TLS");
    End open(SecureMode::Prefer);
    tls.Open(true);
    dialler.Open(false);
    const std::string hello = dialler.Take();
    tls.Receive(hello.substr(0, cut));
    tls.Receive(hello.substr(cut));
    Pump(dialler, tls);
    EXPECT_EQ(tls.owner->bodies, std::vector<std::string>{"over TLS"});
    EXPECT_TRUE(links::Info(tls.link).isSecure);

    open.Open(true);
    open.Receive(plain.substr(0, cut));
    open.Receive(plain.substr(cut));
    EXPECT_EQ(open.owner->bodies, std::vector<std::string>{"in plaintext"});
    EXPECT_FALSE(links::Info(open.link).isSecure);
  }
  // require, or any trust list: a plaintext peer is closed and gets nothing back.
  End require(SecureMode::Require, {}, "INFO"), trusting(SecureMode::Prefer, {"0"});
  require.Open(true);
  trusting.Open(true);
  require.Receive(plain);
  trusting.Receive(plain);
  EXPECT_EQ(require.Take(), "");
  EXPECT_FALSE(require.Open() || trusting.Open());
  EXPECT_EQ(require.owner->ups + trusting.owner->ups, 0);
  EXPECT_TRUE(require.Faulted("closed: plaintext refused (secureMode require)"));
  EXPECT_TRUE(trusting.Faulted("plaintext refused (trustedPeers is set)"));
  // off: up at once as classic nodes are, but a peer that offers TLS is told no.
  End off(SecureMode::Off), dialler(SecureMode::Prefer);
  off.Open(true);
  EXPECT_EQ(off.owner->ups, 1);
  dialler.Open(false);
  off.Receive(dialler.Take());
  EXPECT_FALSE(off.Open());
  EXPECT_TRUE(off.Faulted("offered TLS, and secureMode is off"));
}

}  // namespace
}  // namespace qel::test
