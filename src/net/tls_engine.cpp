#include "net/tls_engine.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "core/node_key.h"

namespace qel {
namespace {

constexpr unsigned char kAlpn[] = "\x03qel";  // the wire form: a length, then the name
constexpr unsigned int kAlpnSize = sizeof kAlpn - 1;
// A record's plaintext at most, and what sealing adds to it (header 5, type 1, tag 16).
constexpr size_t kRecordPlain = 16 * 1024;
constexpr size_t kRecordOverhead = 22;
// Room kept for the start of a record cut short; a larger one is given back.
constexpr size_t kKeptInput = 32 * 1024;

// Alerts by which a peer says it would not take the certificate it was shown.
bool RefusesCertificate(int alert) {
  return (alert >= 42 && alert <= 46) || alert == 116;  // bad ... unknown, required
}

// A server answers only clients that ask for qel; a client that asks for nothing is caught
// when its certificate is judged.
int SelectAlpn(SSL*, const unsigned char** out, unsigned char* outSize, const unsigned char* in,
               unsigned int inSize, void*) {
  unsigned char* chosen = nullptr;
  if (SSL_select_next_proto(&chosen, outSize, kAlpn, kAlpnSize, in, inSize) !=
      OPENSSL_NPN_NEGOTIATED) {
    return SSL_TLSEXT_ERR_ALERT_FATAL;
  }
  *out = chosen;
  return SSL_TLSEXT_ERR_OK;
}

}  // namespace

// The library's callbacks reach the engine of their SSL through this.
struct TlsEngineAccess {
  static TlsEngine* Of(const SSL* ssl) { return static_cast<TlsEngine*>(SSL_get_app_data(ssl)); }

  // Replaces chain validation: certificates are self-signed and identity is the key ID, so
  // the only questions are whether both ends speak qel and whether the key is trusted. That
  // the peer holds the key is proven by the handshake itself (CertificateVerify), after this.
  static int JudgePeer(X509_STORE_CTX* store, void*) {
    SSL* ssl =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    TlsEngine* engine = ssl ? Of(ssl) : nullptr;
    if (!engine) return 0;
    // ALPN is settled before certificates arrive, on both ends.
    const unsigned char* alpn = nullptr;
    unsigned int alpnSize = 0;
    SSL_get0_alpn_selected(ssl, &alpn, &alpnSize);
    if (alpnSize != kAlpnSize - 1 || std::memcmp(alpn, kAlpn + 1, alpnSize) != 0) {
      engine->Fail("the peer does not speak qel over TLS (no application protocol \"qel\")");
      X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
      return 0;
    }
    engine->peerKeyId_ = KeyIDOf(X509_get0_pubkey(X509_STORE_CTX_get0_cert(store)));
    const auto& trusted = engine->trusted_;
    if (engine->peerKeyId_.empty()) {
      engine->Fail("the peer's certificate holds no usable key");
    } else if (!trusted.empty() &&
               std::find(trusted.begin(), trusted.end(), engine->peerKeyId_) == trusted.end()) {
      engine->Fail("refused peer key " + engine->peerKeyId_ + ": not among the trusted keys");
    } else {
      return 1;
    }
    X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_REJECTED);
    return 0;
  }

  // The link's BIO: the library reads the caller's bytes where they are and appends what it
  // writes to the engine's output, with no buffer of its own in between.
  static int BioRead(BIO* bio, char* data, size_t size, size_t* done) {
    BIO_clear_retry_flags(bio);
    auto* engine = static_cast<TlsEngine*>(BIO_get_data(bio));
    *done = 0;
    if (engine->inputAt_ < engine->inputLeft_.size()) {
      const size_t n = std::min(size, engine->inputLeft_.size() - engine->inputAt_);
      std::memcpy(data, engine->inputLeft_.data() + engine->inputAt_, n);
      engine->inputAt_ += n;
      *done = n;
    } else if (!engine->input_.empty()) {
      const size_t n = std::min(size, engine->input_.size());
      std::memcpy(data, engine->input_.data(), n);
      engine->input_.remove_prefix(n);
      *done = n;
    }
    if (*done > 0) return 1;
    BIO_set_retry_read(bio);
    return 0;
  }
  static int BioWrite(BIO* bio, const char* data, size_t size, size_t* done) {
    BIO_clear_retry_flags(bio);
    static_cast<TlsEngine*>(BIO_get_data(bio))->output_.append(data, size);
    *done = size;
    return 1;
  }
  static long BioCtrl(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

  // A client's proof that the server took its certificate: the server sends its ticket only
  // after judging it. Nothing is resumed, so the session is not kept.
  static int NoteTicket(SSL* ssl, SSL_SESSION*) {
    if (TlsEngine* engine = Of(ssl)) engine->ticketSeen_ = true;
    return 0;
  }

  // Keeps the fatal alert a peer sends, so the failure it causes can say what the peer meant.
  static void NoteAlert(const SSL* ssl, int where, int value) {
    TlsEngine* engine = Of(ssl);
    if (engine && (where & SSL_CB_READ_ALERT) == SSL_CB_READ_ALERT &&
        (value >> 8) == SSL3_AL_FATAL) {
      engine->alertRead_ = value & 0xff;
    }
  }
};

namespace {

BIO_METHOD* LinkBioMethod() {
  static BIO_METHOD* method = [] {
    BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "qel link");
    if (m) {
      BIO_meth_set_read_ex(m, TlsEngineAccess::BioRead);
      BIO_meth_set_write_ex(m, TlsEngineAccess::BioWrite);
      BIO_meth_set_ctrl(m, TlsEngineAccess::BioCtrl);
      BIO_meth_set_create(m, [](BIO* bio) {
        BIO_set_init(bio, 1);
        return 1;
      });
    }
    return m;
  }();
  return method;
}

}  // namespace

TlsIdentity::TlsIdentity(const NodeKey& key) {
  EVP_PKEY* pkey = key.Get();
  if (!pkey) {
    why_ = "no node key";
    return;
  }
  keyId_ = key.ID();
  // Peers look at nothing but the key, so names, serial and dates are placeholders.
  X509* cert = X509_new();
  bool ok = cert && X509_set_version(cert, X509_VERSION_3) &&
            ASN1_INTEGER_set(X509_get_serialNumber(cert), 1) &&
            X509_gmtime_adj(X509_getm_notBefore(cert), 0) &&
            X509_time_adj_ex(X509_getm_notAfter(cert), 36500, 0, nullptr) &&
            X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char*>("qel"), -1, -1, 0) &&
            X509_set_issuer_name(cert, X509_get_subject_name(cert)) &&
            X509_set_pubkey(cert, pkey) && X509_sign(cert, pkey, nullptr) > 0;
  SSL_CTX* context = ok ? SSL_CTX_new(TLS_method()) : nullptr;
  ok = context && SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) &&
       SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) &&
       // AES-128 first, as most TLS 1.3 stacks order them: ample, and faster than AES-256.
       SSL_CTX_set_ciphersuites(
           context, "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256") &&
       SSL_CTX_use_certificate(context, cert) == 1 && SSL_CTX_use_PrivateKey(context, pkey) == 1 &&
       SSL_CTX_set_alpn_protos(context, kAlpn, kAlpnSize) == 0;  // 0 is success here
  X509_free(cert);  // the context holds its own reference, as it does to the key
  if (!ok) {
    SSL_CTX_free(context);
    ERR_clear_error();
    why_ = "cannot make a TLS certificate for the node key";
    return;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  SSL_CTX_set_cert_verify_callback(context, TlsEngineAccess::JudgePeer, nullptr);
  SSL_CTX_set_alpn_select_cb(context, SelectAlpn, nullptr);
  SSL_CTX_set_info_callback(context, TlsEngineAccess::NoteAlert);
  // One ticket per handshake and no resumption: links are long-lived and redials rare. In
  // TLS 1.3 a client's handshake ends before the server has judged its certificate; the
  // ticket, which the server sends only once it has, tells the client it was taken.
  SSL_CTX_set_num_tickets(context, 1);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
  SSL_CTX_sess_set_new_cb(context, TlsEngineAccess::NoteTicket);
  context_ = context;
}

TlsIdentity::~TlsIdentity() {
  SSL_CTX_free(context_);
}

TlsEngine::TlsEngine(const TlsIdentity& identity, TlsRole role, std::vector<std::string> trusted)
    : role_(role), trusted_(std::move(trusted)), ownKeyId_(identity.KeyID()) {
  ssl_ = identity.Valid() ? SSL_new(identity.Context()) : nullptr;  // holds the context
  BIO_METHOD* method = ssl_ ? LinkBioMethod() : nullptr;
  BIO* bio = method ? BIO_new(method) : nullptr;
  if (!bio) {
    SSL_free(ssl_);
    ssl_ = nullptr;
    ERR_clear_error();
    Fail("cannot start TLS");
    return;
  }
  BIO_set_data(bio, this);
  SSL_set_bio(ssl_, bio, bio);  // one BIO both ways: one reference
  SSL_set_app_data(ssl_, this);
  if (role == TlsRole::kClient) {
    SSL_set_connect_state(ssl_);
    Advance();  // the ClientHello
  } else {
    SSL_set_accept_state(ssl_);
  }
}

TlsEngine::~TlsEngine() {
  SSL_free(ssl_);
}

void TlsEngine::FeedCiphertext(std::string_view bytes, PlainSink* sink) {
  if (Failed() || bytes.empty()) return;
  // Without this the library would answer a plaintext peer with an alert and a reason about
  // record versions; the peer gets nothing and the reason says what happened. A server's
  // first record is a handshake or, refusing us, an alert (0x15).
  const auto first = static_cast<uint8_t>(bytes[0]);
  if (!sawInput_ && role_ == TlsRole::kServer && !LooksLikeTlsClientHello(first)) {
    Fail("plaintext refused: the peer did not start a TLS handshake");
    return;
  }
  if (!sawInput_ && role_ == TlsRole::kClient && !LooksLikeTlsClientHello(first) && first != 0x15) {
    Fail("the peer answered in plaintext, not TLS");
    return;
  }
  sawInput_ = true;
  if (inputAt_ < inputLeft_.size()) {
    inputLeft_.append(bytes);  // the rest of a cut record comes first
  } else {
    input_ = bytes;
  }
  Advance(sink);
  // A record cut short waits for its rest; the caller's bytes are not kept.
  if (inputAt_ == inputLeft_.size()) {
    inputAt_ = 0;
    if (inputLeft_.capacity() > kKeptInput) {
      std::string().swap(inputLeft_);
    } else {
      inputLeft_.clear();
    }
  }
  if (!input_.empty()) {
    inputLeft_.append(input_);
    input_ = {};
  }
}

std::string TlsEngine::TakeCiphertext() {
  if (!ssl_) return {};
  Flush();
  return std::exchange(output_, {});
}

void TlsEngine::WritePlain(std::string_view bytes) {
  if (Failed() || bytes.empty()) return;
  // Gathered while the last piece is short of a record: a batch of small messages becomes
  // full records, never one per message.
  if (pendingPlain_.empty() || pendingPlain_.back().size() >= kRecordPlain) {
    pendingPlain_.emplace_back();
  }
  pendingPlain_.back().append(bytes);
  pendingBytes_ += bytes.size();
}

void TlsEngine::WriteOwned(std::string&& bytes) {
  if (bytes.size() < kRecordPlain) return WritePlain(bytes);
  if (Failed()) return;
  pendingBytes_ += bytes.size();
  pendingPlain_.push_back(std::move(bytes));
}

void TlsEngine::DiscardPending() {
  std::vector<std::string>().swap(pendingPlain_);
  pendingBytes_ = 0;
}

std::string TlsEngine::ReadPlain() {
  return std::exchange(receivedPlain_, {});
}

void TlsEngine::Advance(PlainSink* sink) {
  if (Failed()) return;
  if (!done_) {
    const int result = SSL_do_handshake(ssl_);
    if (result != 1) {
      FailFromLibrary(result);
      return;
    }
    done_ = true;
  }
  // Straight into the sink's room where it offers one: a large body is decrypted where it
  // is going.
  char buffer[16 * 1024];
  for (;;) {
    std::span<char> room = sink ? sink->Room() : std::span<char>();
    const bool own = room.empty();
    if (own) room = buffer;
    size_t read = 0;
    const int result = SSL_read_ex(ssl_, room.data(), room.size(), &read);
    if (result <= 0) {
      FailFromLibrary(result);
      return;
    }
    if (!own) {
      sink->Put(read);
    } else {
      receivedPlain_.append(room.data(), read);
    }
  }
}

// One write per piece: the library cuts each into full-size records, where a write per
// message would cost a record header, a tag and a cipher call each.
void TlsEngine::Flush() {
  if (!done_ || Failed() || pendingPlain_.empty()) return;
  // Room for the whole batch at once (each record adds a header and a tag), so the output
  // never regrows while it is written.
  output_.reserve(output_.size() + pendingBytes_ +
                  (pendingBytes_ / kRecordPlain + pendingPlain_.size()) * kRecordOverhead);
  std::vector<std::string> batch;
  batch.swap(pendingPlain_);  // freed after, so a burst does not keep its buffers
  pendingBytes_ = 0;
  for (const std::string& piece : batch) {
    for (size_t sent = 0; sent < piece.size();) {
      const int size = static_cast<int>(std::min<size_t>(piece.size() - sent, INT_MAX));
      const int written = SSL_write(ssl_, piece.data() + sent, size);
      if (written <= 0) {
        FailFromLibrary(written);
        return;
      }
      sent += static_cast<size_t>(written);
    }
  }
}

void TlsEngine::Fail(std::string why) {
  if (why_.empty()) why_ = std::move(why);
  // What came before the failure stays for ReadPlain: a peer may send its last messages and
  // close at once.
  DiscardPending();
}

void TlsEngine::FailFromLibrary(int result) {
  const int error = SSL_get_error(ssl_, result);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    ERR_clear_error();
    return;
  }
  if (error == SSL_ERROR_ZERO_RETURN) {
    Fail("the peer closed the secure session");
  } else if (alertRead_ >= 0 && RefusesCertificate(alertRead_)) {
    Fail("the peer refused this node's key " + ownKeyId_ +
         " (TLS alert: " + SSL_alert_desc_string_long(alertRead_) + ")");
  } else if (alertRead_ >= 0) {
    Fail(std::string("the peer ended the TLS session (alert: ") +
         SSL_alert_desc_string_long(alertRead_) + ")");
  } else {
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    Fail(std::string("TLS failed: ") + (reason ? reason : "library error"));
  }
  ERR_clear_error();
}

}  // namespace qel
