// TLS 1.3 for a link, driven by bytes only: the link moves ciphertext between the engine and
// its socket (or an in-memory pipe), so the engine knows nothing of sockets or the event loop.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// OpenSSL's own declarations of the types, so this header needs none of its headers.
typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

namespace qel {

class NodeKey;

// Whether a link's first byte starts a TLS handshake record (0x16). No plaintext message
// starts with it, so one listening port serves both kinds of peer.
inline bool LooksLikeTlsClientHello(uint8_t firstByte) {
  return firstByte == 0x16;
}

// Where an engine puts the plaintext it decrypts, when the caller wants it somewhere of its
// own: Room() offers space (empty: keep the rest for later), Put(n) says n bytes were
// written there. Neither may call back into the engine.
class PlainSink {
 public:
  virtual std::span<char> Room() = 0;
  virtual void Put(size_t n) = 0;

 protected:
  ~PlainSink() = default;
};

// What a node shows its peers: a self-signed certificate for its node key and the TLS settings
// every link shares (TLS 1.3 only, both ends show a certificate, ALPN "qel"). Made once per
// node; engines hold their own reference to what they need, so it may go before them.
class TlsIdentity {
 public:
  // A certificate and context for key; not Valid(), with the reason in Why(), when the key
  // is not valid or the library cannot make them.
  explicit TlsIdentity(const NodeKey& key);
  ~TlsIdentity();
  TlsIdentity(const TlsIdentity&) = delete;
  TlsIdentity& operator=(const TlsIdentity&) = delete;

  bool Valid() const { return context_ != nullptr; }
  const std::string& Why() const { return why_; }
  // The key ID of the node key, the one peers see.
  const std::string& KeyID() const { return keyId_; }
  // The shared context; null when not Valid().
  SSL_CTX* Context() const { return context_; }

 private:
  SSL_CTX* context_ = nullptr;
  std::string keyId_;
  std::string why_;
};

enum class TlsRole { kClient, kServer };

// The TLS session of one link. Bytes from the peer go in through FeedCiphertext; whatever
// TakeCiphertext returns must be sent to the peer, after every call that may produce some
// (construction of a client, FeedCiphertext, WritePlain). Not thread-safe; no callbacks.
//
// Once Failed(), the engine takes no more bytes and seals nothing more; ReadPlain still hands
// over what arrived before, and TakeCiphertext may hold an alert that tells the peer why. A client
// finishes its handshake before the server has judged the client's certificate, so a client can
// fail after HandshakeDone(); once PeerAccepted(), the server has taken it.
class TlsEngine {
 public:
  // An engine for identity (which must be Valid()) in the given role. trusted lists the key
  // IDs a peer may have; empty accepts any key. A client queues its first handshake bytes.
  TlsEngine(const TlsIdentity& identity, TlsRole role, std::vector<std::string> trusted = {});
  ~TlsEngine();
  TlsEngine(const TlsEngine&) = delete;
  TlsEngine& operator=(const TlsEngine&) = delete;

  // Takes bytes received from the peer; they may be cut anywhere. The plaintext they hold goes
  // to sink, or, without one (or past the room it offers), waits for ReadPlain. The bytes are
  // read where they are; only a record cut short is copied, to wait for its rest.
  void FeedCiphertext(std::string_view bytes, PlainSink* sink = nullptr);
  // The bytes to send to the peer now; plaintext written since the last call goes out in as
  // few records as fit (one per 16 KiB), so callers should write a whole batch first.
  std::string TakeCiphertext();

  // Queues application bytes; they are sealed by the next TakeCiphertext once the handshake is
  // done. Small writes are gathered into full records; a large owned piece is sealed where
  // it is, not copied first. Dropped once Failed().
  void WritePlain(std::string_view bytes);
  void WriteOwned(std::string&& bytes);
  // Whether handshake messages or an alert wait for TakeCiphertext.
  bool HasOutput() const { return !output_.empty(); }
  // Application bytes queued and not yet sealed.
  size_t PendingBytes() const { return pendingBytes_; }
  // Forgets them and gives their memory back.
  void DiscardPending();
  // The application bytes received so far, handed over once.
  std::string ReadPlain();

  bool HandshakeDone() const { return done_; }
  // Whether the peer took this end: for a server, once its handshake is done; for a client,
  // once the server's first message after the handshake (its session ticket, sent only after
  // it judged the client's certificate) arrived.
  bool PeerAccepted() const { return done_ && (role_ == TlsRole::kServer || ticketSeen_); }
  bool Failed() const { return !why_.empty(); }
  // Why the session failed or ended, for the link's Error; empty while it has not.
  const std::string& Why() const { return why_; }
  // The key ID of the peer's certificate, known once its certificate was seen.
  const std::string& PeerKeyID() const { return peerKeyId_; }

 private:
  friend struct TlsEngineAccess;

  void Advance(PlainSink* sink = nullptr);
  void Flush();
  void Fail(std::string why);
  void FailFromLibrary(int result);

  SSL* ssl_ = nullptr;
  TlsRole role_;
  std::vector<std::string> trusted_;
  std::string ownKeyId_;
  std::string peerKeyId_;
  std::vector<std::string> pendingPlain_;
  size_t pendingBytes_ = 0;
  // Ciphertext not yet taken by the library: the bytes of the FeedCiphertext running, and the
  // start of a record cut short from earlier ones.
  std::string_view input_;
  std::string inputLeft_;
  size_t inputAt_ = 0;
  std::string output_;  // sealed bytes and handshake messages for the peer
  std::string receivedPlain_;
  std::string why_;
  bool done_ = false;
  bool ticketSeen_ = false;
  bool sawInput_ = false;
  int alertRead_ = -1;  // the fatal alert the peer sent, for the reason text
};

}  // namespace qel
