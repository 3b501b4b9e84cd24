#include "net/link_transform.h"

#include <utility>

namespace qel {
namespace {

const std::string kNoKey;

// A peer's first record: a handshake, or an alert refusing ours.
bool IsTlsRecord(uint8_t firstByte) {
  return LooksLikeTlsClientHello(firstByte) || firstByte == 0x15;
}

}  // namespace

LinkTransform LinkTransform::Dialled(const LinkSecurity& security, bool plain) {
  LinkTransform link;
  link.plainAllowed_ = security.PlainAllowed();
  if (security.mode == SecureMode::Off || plain) {
    if (!link.plainAllowed_) {
      link.Fail(security.mode == SecureMode::Off
                    ? "plaintext refused (trustedPeers is set, and secureMode is off)"
                    : "plaintext refused (secureMode require)");
    }
    return link;
  }
  if (!security.identity || !security.identity->Valid()) {
    link.Fail("this node has no key to show over TLS");
    return link;
  }
  link.identity_ = security.identity;
  link.engine_ =
      std::make_unique<TlsEngine>(*security.identity, TlsRole::kClient, security.trusted);
  link.state_ = State::Handshaking;
  link.fallback_ = security.mode == SecureMode::Prefer && link.plainAllowed_;
  return link;
}

LinkTransform LinkTransform::Accepted(const LinkSecurity& security) {
  LinkTransform link;
  link.plainAllowed_ = security.PlainAllowed();
  link.state_ = security.Sniffs() ? State::Sniffing : State::PlainFirst;
  if (security.mode != SecureMode::Off) {
    link.identity_ = security.identity;
    link.trusted_ = security.trusted;
  }
  return link;
}

LinkTransform::Step LinkTransform::Feed(std::string_view bytes, PlainSink* sink) {
  if (bytes.empty()) return Ready() ? Step::Pass : Step::Wait;
  const auto first = static_cast<uint8_t>(bytes[0]);
  switch (state_) {
    case State::Plain:
      return Step::Pass;
    case State::PlainFirst:
      state_ = State::Plain;
      if (LooksLikeTlsClientHello(first))
        return Fail("the peer offered TLS, and secureMode is off");
      return Step::Pass;
    case State::Sniffing:
      if (!LooksLikeTlsClientHello(first)) {
        if (!plainAllowed_) {
          return Fail(trusted_.empty() ? "plaintext refused (secureMode require)"
                                       : "plaintext refused (trustedPeers is set)");
        }
        state_ = State::Plain;
        return Step::UpPlain;
      }
      if (!identity_) return Fail("the peer offered TLS, and secureMode is off");
      if (!identity_->Valid()) return Fail("this node has no key to show over TLS");
      engine_ = std::make_unique<TlsEngine>(*identity_, TlsRole::kServer, std::move(trusted_));
      state_ = State::Handshaking;
      return FeedEngine(bytes, nullptr);
    case State::Handshaking:
      if (!sawByte_) {
        sawByte_ = true;
        answered_ = IsTlsRecord(first);
      }
      // What follows the handshake in these bytes waits in TakePlain: the link is not up yet.
      return FeedEngine(bytes, nullptr);
    case State::Secure:
      return FeedEngine(bytes, sink);
    case State::Failed:
      break;
  }
  return Step::Failed;
}

LinkTransform::Step LinkTransform::FeedEngine(std::string_view bytes, PlainSink* sink) {
  engine_->FeedCiphertext(bytes, sink);
  if (plain_.empty()) {
    plain_ = engine_->ReadPlain();
  } else {
    plain_ += engine_->ReadPlain();
  }
  if (engine_->Failed()) return Fail(engine_->Why());
  if (state_ == State::Handshaking && engine_->PeerAccepted()) {
    state_ = State::Secure;
    return Step::Up;
  }
  return state_ == State::Secure ? Step::Data : Step::Wait;
}

bool LinkTransform::AssumePlain() {
  if (state_ != State::Sniffing || !plainAllowed_) return false;
  state_ = State::Plain;
  return true;
}

const std::string& LinkTransform::PeerKey() const {
  return state_ == State::Secure && engine_ ? engine_->PeerKeyID() : kNoKey;
}

void LinkTransform::Write(std::string_view bytes) {
  engine_->WritePlain(bytes);
}

void LinkTransform::WriteOwned(std::string&& bytes) {
  engine_->WriteOwned(std::move(bytes));
}

std::string LinkTransform::TakeOutput() {
  return engine_ ? engine_->TakeCiphertext() : std::string();
}

LinkTransform::Step LinkTransform::Fail(std::string why) {
  if (state_ != State::Failed) why_ = std::move(why);
  state_ = State::Failed;
  DiscardPending();
  return Step::Failed;
}

}  // namespace qel
