#include "net/tls_engine.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

#include "core/node_key.h"

namespace qel {
namespace {

struct TestNode {
  NodeKey key = NodeKey::Fresh();
  TlsIdentity identity{key};
};

// Hands bytes to an engine in pieces of at most chunk bytes.
void Deliver(TlsEngine& to, const std::string& bytes, size_t chunk) {
  for (size_t at = 0; at < bytes.size(); at += chunk) to.FeedCiphertext(bytes.substr(at, chunk));
}

// Moves bytes both ways until neither engine has anything more to send.
void Pump(TlsEngine& client, TlsEngine& server, size_t chunk = SIZE_MAX) {
  for (int round = 0; round < 20; ++round) {
    const std::string toServer = client.TakeCiphertext();
    const std::string toClient = server.TakeCiphertext();
    if (toServer.empty() && toClient.empty()) return;
    Deliver(server, toServer, chunk);
    Deliver(client, toClient, chunk);
  }
  ADD_FAILURE() << "the engines never went quiet";
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

void ExpectUp(const TlsEngine& engine) {
  EXPECT_TRUE(engine.HandshakeDone());
  EXPECT_FALSE(engine.Failed()) << engine.Why();
}

TEST(TlsEngineTest, HandshakeAndDataBothWays) {
  TestNode a, b;
  ASSERT_TRUE(a.identity.Valid()) << a.identity.Why();
  ASSERT_TRUE(b.identity.Valid()) << b.identity.Why();
  EXPECT_EQ(a.identity.KeyID(), a.key.ID());
  TlsEngine client(a.identity, TlsRole::kClient);
  TlsEngine server(b.identity, TlsRole::kServer);

  const std::string hello = client.TakeCiphertext();
  ASSERT_FALSE(hello.empty());
  EXPECT_TRUE(LooksLikeTlsClientHello(static_cast<uint8_t>(hello[0])));
  EXPECT_FALSE(LooksLikeTlsClientHello('M'));
  server.FeedCiphertext(hello);
  Pump(client, server);
  ExpectUp(client);
  ExpectUp(server);
  EXPECT_EQ(client.PeerKeyID(), b.key.ID());
  EXPECT_EQ(server.PeerKeyID(), a.key.ID());

  // Many small writes leave as one record.
  std::string sent;
  for (int i = 0; i < 100; ++i) {
    const std::string message = "MSG  QEL/2.1\r\nNumber: " + std::to_string(i) + "\r\n\r\n";
    client.WritePlain(message);
    sent += message;
  }
  const std::string sealed = client.TakeCiphertext();
  EXPECT_EQ(CountRecords(sealed), 1);
  EXPECT_EQ(sealed.find("MSG"), std::string::npos);
  server.FeedCiphertext(sealed);
  EXPECT_EQ(server.ReadPlain(), sent);

  // A large buffer the other way, in full-size records, cut anywhere on the way.
  std::string large(1 << 20, '\0');
  std::mt19937 random(7);
  for (char& c : large) c = static_cast<char>(random());
  server.WritePlain(large);
  const std::string sealedLarge = server.TakeCiphertext();
  EXPECT_EQ(CountRecords(sealedLarge), (1 << 20) / (16 * 1024));
  Deliver(client, sealedLarge, 1000);
  EXPECT_EQ(client.ReadPlain(), large);
  ExpectUp(client);
  ExpectUp(server);
}

TEST(TlsEngineTest, UntrustedPeerFailsBothEndsNamingItsKey) {
  TestNode a, b;
  const std::string stranger = NodeKey::Fresh().ID();
  {
    SCOPED_TRACE("the server refuses the client");
    TlsEngine client(a.identity, TlsRole::kClient);
    TlsEngine server(b.identity, TlsRole::kServer, {stranger});
    client.WritePlain("secret");
    Pump(client, server);
    ASSERT_TRUE(client.Failed());
    ASSERT_TRUE(server.Failed());
    EXPECT_NE(server.Why().find(a.key.ID()), std::string::npos) << server.Why();
    EXPECT_NE(client.Why().find(a.key.ID()), std::string::npos) << client.Why();
    EXPECT_FALSE(server.HandshakeDone());
    EXPECT_EQ(server.ReadPlain(), "");
  }
  {
    SCOPED_TRACE("the client refuses the server");
    TlsEngine client(a.identity, TlsRole::kClient, {stranger});
    TlsEngine server(b.identity, TlsRole::kServer);
    Pump(client, server);
    ASSERT_TRUE(client.Failed());
    ASSERT_TRUE(server.Failed());
    EXPECT_NE(client.Why().find(b.key.ID()), std::string::npos) << client.Why();
    EXPECT_NE(server.Why().find(b.key.ID()), std::string::npos) << server.Why();
    EXPECT_FALSE(client.HandshakeDone());
    EXPECT_FALSE(server.HandshakeDone());
  }
  {
    SCOPED_TRACE("both listed");
    TlsEngine client(a.identity, TlsRole::kClient, {stranger, b.key.ID()});
    TlsEngine server(b.identity, TlsRole::kServer, {a.key.ID()});
    Pump(client, server);
    ExpectUp(client);
    ExpectUp(server);
  }
}

TEST(TlsEngineTest, PlaintextFailsCleanly) {
  TestNode a, b;
  const std::string plaintext = "MSG  QEL/2.1\r\nNode-Id: 1\r\n\r\n";
  TlsEngine server(b.identity, TlsRole::kServer);
  server.FeedCiphertext(plaintext);
  ASSERT_TRUE(server.Failed());
  EXPECT_NE(server.Why().find("plaintext"), std::string::npos) << server.Why();
  EXPECT_EQ(server.TakeCiphertext(), "");  // not even an alert to read
  // Nothing revives it, not even a real handshake after.
  TlsEngine client(a.identity, TlsRole::kClient);
  Pump(client, server);
  EXPECT_FALSE(server.HandshakeDone());
  EXPECT_TRUE(client.Failed());

  // A client answered in plaintext by a classic node fails instead of waiting.
  TlsEngine dialer(a.identity, TlsRole::kClient);
  dialer.TakeCiphertext();
  dialer.FeedCiphertext(plaintext);
  EXPECT_TRUE(dialer.Failed());
  EXPECT_FALSE(dialer.HandshakeDone());
}

TEST(TlsEngineTest, HandshakeSplitAtEveryByteCompletes) {
  TestNode a, b;
  {
    SCOPED_TRACE("one byte at a time");
    TlsEngine client(a.identity, TlsRole::kClient);
    TlsEngine server(b.identity, TlsRole::kServer);
    Pump(client, server, 1);
    ExpectUp(client);
    ExpectUp(server);
    EXPECT_EQ(client.PeerKeyID(), b.key.ID());
    EXPECT_EQ(server.PeerKeyID(), a.key.ID());
  }
  // Each first flight in two pieces, cut at every byte.
  for (const bool cutHello : {true, false}) {
    for (size_t cut = 1;; ++cut) {
      TlsEngine client(a.identity, TlsRole::kClient);
      TlsEngine server(b.identity, TlsRole::kServer);
      const std::string hello = client.TakeCiphertext();
      if (!cutHello) server.FeedCiphertext(hello);
      TlsEngine& to = cutHello ? server : client;
      const std::string flight = cutHello ? hello : server.TakeCiphertext();
      if (cut >= flight.size()) break;
      to.FeedCiphertext(flight.substr(0, cut));
      to.FeedCiphertext(flight.substr(cut));
      Pump(client, server);
      ASSERT_TRUE(client.HandshakeDone() && server.HandshakeDone())
          << (cutHello ? "ClientHello" : "server flight") << " cut at " << cut << ": "
          << client.Why() << server.Why();
    }
  }
}

}  // namespace
}  // namespace qel
