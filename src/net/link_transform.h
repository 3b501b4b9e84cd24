// What lies between a link's socket and its feeder: nothing (plaintext) or a TLS session. It
// decides what an accepted link's first byte makes of it, runs the handshake, and seals what the
// link writes once per write batch. Bytes in, bytes out: the link table moves them to
// and from the socket and tells the owner, so this knows nothing of sockets or the loop.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "net/link_owner.h"
#include "net/tls_engine.h"

namespace qel {

class LinkTransform {
 public:
  // What the bytes fed made of the link.
  enum class Step {
    Pass,     // plaintext: the bytes fed go to the feeder as they are
    UpPlain,  // an accepted link turned out plaintext: it is up, then the bytes fed go on as Pass
    Wait,     // the handshake goes on: nothing for the feeder
    Up,       // the handshake is done: the link is up, then TakePlain() goes to the feeder
    Data,     // TakePlain() goes to the feeder
    Failed,   // Why() says why the link must close; TakePlain() still holds what came before
  };

  // A plaintext link with nothing to check: the state of an element not in use.
  LinkTransform() = default;

  // A dialled link under security: a TLS client, unless plain is asked (a prefer dial that
  // found no TLS before) or security is off. Failed when security refuses plaintext and
  // this end would dial in plaintext, or the node has no TLS identity.
  static LinkTransform Dialled(const LinkSecurity& security, bool plain);
  // An accepted link under security: it waits for the peer's first byte unless security
  // is off, when it is plaintext at once (and refuses a peer that offers TLS).
  static LinkTransform Accepted(const LinkSecurity& security);

  // Takes bytes from the peer; they may be cut anywhere. Once the link is secure, the
  // plaintext goes to sink where it takes it (see PlainSink), else to TakePlain().
  Step Feed(std::string_view bytes, PlainSink* sink = nullptr);
  // No byte came within the handshake time: an accepted link that may be plaintext comes up
  // as one (a classic dialler that does not announce itself says nothing first). False when
  // it must close instead.
  bool AssumePlain();

  // Whether the link is up from this end's view (plaintext decided, or handshake done).
  bool Ready() const {
    return state_ == State::Plain || state_ == State::PlainFirst || state_ == State::Secure;
  }
  // Whether bytes from the peer must pass through Feed (false: straight to the feeder).
  bool Transforms() const { return state_ != State::Plain; }
  // Whether what the link writes goes through Write and TakeOutput (a TLS link).
  bool Seals() const { return engine_ != nullptr; }
  bool Secure() const { return state_ == State::Secure; }
  bool Failed() const { return state_ == State::Failed; }
  const std::string& Why() const { return why_; }
  // The peer's key ID, once its certificate was judged.
  const std::string& PeerKey() const;
  // A dialled link in prefer mode whose peer never answered in TLS (no TLS record came
  // back, or plaintext did): it may be dialled again in plaintext. Never after a TLS record
  // arrived: a handshake that failed must not turn into a downgrade.
  bool MayFallBack() const { return fallback_ && !answered_; }

  // The plaintext received and not yet taken.
  std::string TakePlain() { return std::exchange(plain_, {}); }

  // Queues plaintext for the peer; sealed by the next TakeOutput, so a whole write batch
  // goes out in as few records as fit. Only for a link that Seals().
  void Write(std::string_view bytes);
  void WriteOwned(std::string&& bytes);
  // What must be sent to the peer now: handshake bytes, the sealed batch, an alert.
  std::string TakeOutput();
  // Whether handshake messages or an alert wait to be sent.
  bool HasOutput() const { return engine_ && engine_->HasOutput(); }
  // Plaintext written and not yet sealed.
  size_t PendingBytes() const { return engine_ ? engine_->PendingBytes() : 0; }
  // Forgets the plaintext not yet sealed and gives its memory back.
  void DiscardPending() {
    if (engine_) engine_->DiscardPending();
  }

 private:
  enum class State { Plain, PlainFirst, Sniffing, Handshaking, Secure, Failed };

  Step Fail(std::string why);
  Step FeedEngine(std::string_view bytes, PlainSink* sink);

  State state_ = State::Plain;
  std::shared_ptr<const TlsIdentity> identity_;  // keeps the context the engine was made from
  std::unique_ptr<TlsEngine> engine_;
  std::vector<std::string> trusted_;
  bool plainAllowed_ = true;
  bool fallback_ = false;  // a prefer dial that may fall back
  bool sawByte_ = false;   // the peer sent something
  bool answered_ = false;  // and its first byte started a TLS record
  std::string plain_;
  std::string why_;
};

}  // namespace qel
