#include "net/link_transform.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../support/peers.h"
#include "core/node_key.h"
#include "net/connections.h"

namespace qel::test {
namespace {

// What the table tells one end of a link.
struct Owner : LinkOwner {
  std::vector<std::string> faults, bodies;
  int ups = 0, downs = 0;
  std::function<void(int32_t)> onUp;
  bool Alive() const override { return true; }
  bool OnLinkRequest(const std::string&) override { return false; }
  void OnLinkUp(int32_t conn, LinkKind, const std::string&) override {
    ++ups;
    if (onUp) onUp(conn);
  }
  void OnLinkDown(int32_t, const std::string&, const std::string&) override { ++downs; }
  // The body, from the message's bytes: a plaintext message arrives unparsed.
  void OnLinkMessage(int32_t, typMessage&& message) override {
    const std::string& wire = message.Wire;
    bodies.push_back(wire.empty() ? message.Body : wire.substr(wire.find("\r\n\r\n") + 4));
  }
  void OnLinkFault(const std::string& text) override { faults.push_back(text); }
};

// One end of an in-memory link: what it sent, and everything it ever sent.
struct End {
  NodeKey key = NodeKey::Fresh();
  std::shared_ptr<Owner> owner = std::make_shared<Owner>();
  std::shared_ptr<std::string> sent = std::make_shared<std::string>();
  std::string wire;
  LinkLimits limits;
  int32_t index = 0;

  explicit End(SecureMode mode, std::vector<std::string> trusted = {}) {
    limits.security = {.mode = mode,
                       .identity = std::make_shared<const TlsIdentity>(key),
                       .trusted = std::move(trusted)};
  }
  void Open(bool accepted) {
    auto socket = std::make_unique<Socket>();
    socket->ConnectInMemory(sent);
    index = Connections::Get().Adopt(*owner, std::move(socket), accepted, limits, "peer:1");
  }
  Connection& Link() { return Connections::Get().At(index); }
  bool Open() { return Link().sck->State() == SocketState::Connected; }
  void Receive(std::string_view bytes) {
    if (Open()) Link().sck->ReceiveInMemory(bytes);
  }
  // What it sent since the last call, once its writes were flushed (and so sealed).
  std::string Take() {
    FlushPendingWrites();
    std::string bytes = std::exchange(*sent, {});
    wire += bytes;
    return bytes;
  }
  void Say(const std::string& body) { Connections::Get().Write(index, RawMsg("m", "", body)); }
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

// How many TLS records the bytes hold; -1 if they do not end on a record boundary.
int CountRecords(const std::string& bytes) {
  int records = 0;
  size_t at = 0;
  for (; at + 5 <= bytes.size(); ++records) {
    at += 5 + (static_cast<uint8_t>(bytes[at + 3]) << 8 | static_cast<uint8_t>(bytes[at + 4]));
  }
  return at == bytes.size() ? records : -1;
}

// Each end announces itself when its link comes up, as nodes do.
void SayHelloOnUp(End& end, const std::string& text) {
  end.owner->onUp = [&end, text](int32_t) { end.Say(text); };
}

TEST(LinkTransformTest, TlsLinkComesUpOnlyAfterTheHandshakeAndSealsEachBatchOnce) {
  End dialler(SecureMode::Require), listener(SecureMode::Prefer);
  SayHelloOnUp(dialler, "hello from the dialler");
  SayHelloOnUp(listener, "hello from the listener");
  listener.Open(true);
  dialler.Open(false);
  // Neither is up before the handshake; the listener says nothing before the first byte.
  EXPECT_EQ(dialler.owner->ups + listener.owner->ups, 0);
  EXPECT_EQ(listener.Take(), "");
  EXPECT_FALSE(Connections::Get().IsConnected(dialler.index));

  Pump(dialler, listener);
  ASSERT_EQ(dialler.owner->ups, 1) << testing::PrintToString(dialler.owner->faults);
  ASSERT_EQ(listener.owner->ups, 1) << testing::PrintToString(listener.owner->faults);
  EXPECT_EQ(listener.owner->bodies, std::vector<std::string>{"hello from the dialler"});
  EXPECT_EQ(dialler.owner->bodies, std::vector<std::string>{"hello from the listener"});
  const typLinkInfo seen = Connections::Get().LinkInfo(dialler.index);
  EXPECT_TRUE(seen.isSecure);
  EXPECT_EQ(seen.PeerKey, listener.key.ID());
  EXPECT_EQ(Connections::Get().PeerKey(listener.index), dialler.key.ID());
  EXPECT_EQ((dialler.wire + listener.wire).find("hello"), std::string::npos);

  // A burst of writes waits as plaintext, counted as queued, and leaves as one record.
  size_t written = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string message = RawMsg(std::to_string(i), "", "burst");
    Connections::Get().Write(dialler.index, message);
    written += message.size();
  }
  EXPECT_GE(Connections::Get().QueuedBytes(dialler.index), written);
  const std::string sealed = dialler.Take();
  EXPECT_EQ(CountRecords(sealed), 1);
  listener.Receive(sealed);
  EXPECT_EQ(listener.owner->bodies.size(), 101u);
}

TEST(LinkTransformTest, UntrustedKeyIsRefusedBothWaysNamingIt) {
  const std::string stranger = NodeKey::Fresh().ID();
  {
    // The dialler judges the listener's key during the handshake: neither comes up.
    End listener(SecureMode::Require), dialler(SecureMode::Require, {stranger});
    listener.Open(true);
    dialler.Open(false);
    Pump(dialler, listener);
    EXPECT_EQ(dialler.owner->ups + listener.owner->ups, 0);
    EXPECT_TRUE(dialler.Faulted(listener.key.ID())) << testing::PrintToString(dialler.owner->faults);
    EXPECT_TRUE(listener.Faulted(listener.key.ID()))
        << testing::PrintToString(listener.owner->faults);
    EXPECT_FALSE(dialler.Open() || listener.Open());
  }
  {
    // The listener judges the dialler's key after the dialler finished: the dialler's link
    // comes up, then closes on the alert; nothing it wrote meanwhile is delivered.
    End listener(SecureMode::Require, {stranger}), dialler(SecureMode::Prefer);
    SayHelloOnUp(dialler, "secret");
    listener.Open(true);
    dialler.Open(false);
    Pump(dialler, listener);
    EXPECT_EQ(listener.owner->ups, 0);
    EXPECT_TRUE(listener.owner->bodies.empty());
    EXPECT_TRUE(listener.Faulted("refused peer key " + dialler.key.ID()))
        << testing::PrintToString(listener.owner->faults);
    EXPECT_TRUE(dialler.Faulted(dialler.key.ID())) << testing::PrintToString(dialler.owner->faults);
    EXPECT_EQ(dialler.owner->downs, dialler.owner->ups);
    EXPECT_FALSE(dialler.Open() || listener.Open());
  }
}

TEST(LinkTransformTest, FirstByteOfAnAcceptedLinkDecidesWhatItIs) {
  const std::string plain = RawMsg("1", "", "plain text");
  {
    // require (or any trust list): a plaintext peer is closed and gets nothing back.
    End listener(SecureMode::Require);
    SayHelloOnUp(listener, "INFO");
    listener.Open(true);
    listener.Receive(plain);
    EXPECT_EQ(listener.Take(), "");
    EXPECT_FALSE(listener.Open());
    EXPECT_EQ(listener.owner->ups, 0);
    EXPECT_TRUE(listener.Faulted("closed: plaintext refused (secureMode require)"));
  }
  {
    End listener(SecureMode::Prefer, {NodeKey::Fresh().ID()});
    listener.Open(true);
    listener.Receive(plain);
    EXPECT_FALSE(listener.Open());
    EXPECT_TRUE(listener.Faulted("plaintext refused (trustedPeers is set)"));
  }
  {
    // off: up at once as classic nodes are, but a peer that offers TLS is told no.
    End listener(SecureMode::Off), dialler(SecureMode::Prefer);
    listener.Open(true);
    EXPECT_EQ(listener.owner->ups, 1);
    dialler.Open(false);
    listener.Receive(dialler.Take());
    EXPECT_FALSE(listener.Open());
    EXPECT_TRUE(listener.Faulted("offered TLS, and secureMode is off"));
  }
}

TEST(LinkTransformTest, PreferListenerTellsTlsFromPlaintextWhereverTheFirstBytesAreCut) {
  for (size_t cut = 1; cut <= 20; ++cut) {
    SCOPED_TRACE("cut at " + std::to_string(cut));
    {
      End listener(SecureMode::Prefer), dialler(SecureMode::Prefer);
      SayHelloOnUp(dialler, "over TLS");
      listener.Open(true);
      dialler.Open(false);
      const std::string hello = dialler.Take();
      listener.Receive(hello.substr(0, cut));
      listener.Receive(hello.substr(cut));
      Pump(dialler, listener);
      EXPECT_EQ(listener.owner->bodies, std::vector<std::string>{"over TLS"});
      EXPECT_TRUE(Connections::Get().LinkInfo(listener.index).isSecure);
    }
    {
      End listener(SecureMode::Prefer);
      listener.Open(true);
      const std::string plain = RawMsg("1", "", "in plaintext");
      listener.Receive(plain.substr(0, cut));
      EXPECT_EQ(listener.owner->ups, 1);
      listener.Receive(plain.substr(cut));
      EXPECT_EQ(listener.owner->bodies, std::vector<std::string>{"in plaintext"});
      EXPECT_FALSE(Connections::Get().LinkInfo(listener.index).isSecure);
    }
  }
}

}  // namespace
}  // namespace qel::test
