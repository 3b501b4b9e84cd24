#include "net/tls_engine.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

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
  // Nothing revives it, not even a real handshake after: the client hears nothing.
  TlsEngine client(a.identity, TlsRole::kClient);
  Pump(client, server);
  EXPECT_FALSE(server.HandshakeDone());
  EXPECT_FALSE(client.HandshakeDone());

  // A client answered in plaintext by a classic node fails instead of waiting.
  TlsEngine dialer(a.identity, TlsRole::kClient);
  dialer.TakeCiphertext();
  dialer.FeedCiphertext(plaintext);
  EXPECT_NE(dialer.Why().find("plaintext"), std::string::npos) << dialer.Why();
  EXPECT_FALSE(dialer.HandshakeDone());
}

// A client with the node's certificate that offers other ALPN names (none for empty) and
// does not judge the server, so only the server's refusal is seen.
void HandshakeWithAlpn(const TlsIdentity& identity, TlsEngine& server, std::string alpn) {
  SSL* ssl = SSL_new(identity.Context());
  ASSERT_NE(ssl, nullptr);
  SSL_set_bio(ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  SSL_set_verify(ssl, SSL_VERIFY_NONE, nullptr);
  SSL_set_alpn_protos(ssl, reinterpret_cast<const unsigned char*>(alpn.data()),
                      static_cast<unsigned>(alpn.size()));
  SSL_set_connect_state(ssl);
  for (int round = 0; round < 20 && !server.Failed(); ++round) {
    SSL_do_handshake(ssl);
    std::string out(BIO_ctrl_pending(SSL_get_wbio(ssl)), '\0');
    BIO_read(SSL_get_wbio(ssl), out.data(), static_cast<int>(out.size()));
    server.FeedCiphertext(out);
    const std::string back = server.TakeCiphertext();
    BIO_write(SSL_get_rbio(ssl), back.data(), static_cast<int>(back.size()));
  }
  SSL_free(ssl);
}

TEST(TlsEngineTest, PeerWithoutQelAlpnIsRefused) {
  TestNode a, b;
  for (const std::string& alpn : {std::string("\x02h2"), std::string()}) {
    SCOPED_TRACE(alpn.empty() ? "no ALPN" : "ALPN h2");
    TlsEngine server(b.identity, TlsRole::kServer);
    HandshakeWithAlpn(a.identity, server, alpn);
    EXPECT_TRUE(server.Failed());
    EXPECT_FALSE(server.HandshakeDone());
    EXPECT_NE(server.Why().find("application protocol"), std::string::npos) << server.Why();
  }
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
