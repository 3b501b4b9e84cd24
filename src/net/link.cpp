#include "net/link.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <qel/event_loop.h>

#include "core/debug_log.h"
#include "core/stats.h"
#include "net/event_loop.h"

namespace qel {
namespace {

// What a queued message costs: its text, and a little for its record.
size_t MessageBytes(const typMessage& message) {
  return message.Header.capacity() + message.Body.capacity() + message.Wire.capacity() + 256;
}

// What a message that still lies in the read's bytes costs: those bytes, which the read's
// buffer keeps for it, and its record.
size_t InPlaceBytes(const PackedMessage& message) {
  return message.bytes.size() + sizeof(PackedMessage);
}

// Arrays for messages in place that no link uses now: a link takes one for a read's
// messages and gives it back once they are handled, so a steady stream reuses the same
// few, never grows one per read, and an idle link holds none. Larger ones (a burst of
// tiny messages) are freed.
constexpr size_t kSpareQueues = 2;
constexpr size_t kSpareQueueSize = 1024;

std::vector<std::vector<PackedMessage>>& SpareQueues() {
  static auto* spare = new std::vector<std::vector<PackedMessage>>;  // links outlive statics
  return *spare;
}

// A secure read's plaintext: at most a read's ciphertext plus the rest of a record cut
// short by the last read. Shared like the socket's read buffer: one read has it at a time.
constexpr size_t kRecordPlain = 16 * 1024;
constexpr size_t kPlainRead = 64 * 1024 + 2 * kRecordPlain;

struct PlainBuffer {
  std::unique_ptr<char[]> bytes;
  bool leased = false;
};

PlainBuffer& ThePlainBuffer() {
  static auto* buffer = new PlainBuffer;  // links outlive statics
  return *buffer;
}

MessageFeeder FeederFor(const LinkLimits& limits) {
  return MessageFeeder(
      {.maxHeader = 65536, .maxMessage = limits.maxMessage, .keepPlainAsBytes = true});
}

}  // namespace

void Inbox::push_back(typMessage&& message) {
  if (head_ >= kKeep && 2 * head_ >= items_.size()) {
    items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
  items_.push_back(std::move(message));
}

typMessage Inbox::take_front() {
  typMessage message = std::move(items_[head_++]);
  if (head_ == items_.size()) {
    if (items_.capacity() > kKeep) {
      Release();
    } else {
      items_.clear();
      head_ = 0;
    }
  }
  return message;
}

void Inbox::Release() {
  std::vector<typMessage>().swap(items_);
  head_ = 0;
}

Link::Link() : partial_(FeederFor(limits)) {}

void Link::Reset(const LinkLimits& newLimits) {
  limits = newLimits;
  NodeID.clear();
  Address.clear();
  Peer.clear();
  dialError.clear();
  Maintain = false;
  accepted = false;
  redial = false;
  stream = LinkTransform();
  up = false;
  plainOnly = false;
  dialWaiting = false;
  dialFault.clear();
  holdRedial = false;
  traffic = {};
  ReleaseBuffers();
  ++generation;
}

std::string Link::Name() const {
  if (!Peer.empty()) return Peer;
  return Address.empty() ? sck->RemoteHost() : Address;
}

MessageFeeder::Outcome Link::Feed(std::string_view plain) {
  if (TheDebugLog().Enabled()) {
    DebugLine(">> INCOMING >>>>>>>>>>");
    DebugLine(plain);
  }
  // Messages kept whole stay where they lie until the read's handler returns (Settle).
  struct Take {
    Link& link;
    void operator()(typMessage&& message) const { link.Keep(std::move(message)); }
    void operator()(const PackedMessage& message) const {
      std::vector<PackedMessage>& queue = link.inPlace_;
      if (queue.capacity() == 0 && !SpareQueues().empty()) {
        queue = std::move(SpareQueues().back());
        SpareQueues().pop_back();
      }
      queue.push_back(message);
      link.inboxBytes_ += InPlaceBytes(message);
    }
  };
  return partial_.Feed(plain, Take{*this});
}

void Link::Keep(typMessage&& message) {
  Settle();
  inboxBytes_ += MessageBytes(message);
  inbox_.push_back(std::move(message));
}

void Link::Settle() {
  for (; inPlaceHead_ < inPlace_.size(); ++inPlaceHead_) {
    const PackedMessage& message = inPlace_[inPlaceHead_];
    inboxBytes_ -= std::min(inboxBytes_, InPlaceBytes(message));
    typMessage kept = ToMessage(message);
    inboxBytes_ += MessageBytes(kept);
    inbox_.push_back(std::move(kept));
  }
  EndInPlace();
}

void Link::EndInPlace() {
  inPlace_.clear();
  inPlaceHead_ = 0;
  std::vector<std::vector<PackedMessage>>& spare = SpareQueues();
  if (inPlace_.capacity() == 0) return;
  if (inPlace_.capacity() <= kSpareQueueSize && spare.size() < kSpareQueues) {
    spare.push_back(std::move(inPlace_));
  }
  std::vector<PackedMessage>().swap(inPlace_);
}

Link::Transformed Link::FeedTransformed(std::string_view bytes) {
  // Only a secure link's plaintext goes to a sink; the first bytes of a plaintext link and
  // a handshake need none (nor its buffer on the stack).
  if (!stream.Secure()) return {stream.Feed(bytes)};
  // Offers the body's room while a body is being read, the read's buffer otherwise.
  class Sink final : public PlainSink {
   public:
    explicit Sink(Link& link) : link_(link) {}
    std::span<char> Room() override {
      if (outcome != MessageFeeder::Outcome::Ok) return {};
      const std::span<char> body = link_.partial_.BodyRoom();
      direct_ = !body.empty();
      return direct_ ? body : link_.secureRead_->Room();
    }
    void Put(size_t n) override {
      fed = true;
      if (!direct_) {
        outcome = link_.secureRead_->Put(n);
        return;
      }
      if (TheDebugLog().Enabled()) {
        DebugLine(">> INCOMING >>>>>>>>>>");
        DebugLine(std::string_view(link_.partial_.BodyRoom().data(), n));
      }
      link_.partial_.FeedDirect(n,
                                [this](typMessage&& message) { link_.Keep(std::move(message)); });
    }
    MessageFeeder::Outcome outcome = MessageFeeder::Outcome::Ok;
    bool fed = false;

   private:
    Link& link_;
    bool direct_ = false;
  };
  Sink sink(*this);
  const LinkTransform::Step step = stream.Feed(bytes, &sink);
  return {step, sink.outcome, sink.fed};
}

Link::SecureRead::SecureRead(Link& link)
    : link_(link), outer_(std::exchange(link.secureRead_, this)) {}

Link::SecureRead::~SecureRead() {
  link_.Settle();
  if (leased_) ThePlainBuffer().leased = false;
  if (own_) link_.ownPlainBytes_ -= kPlainRead;
  link_.secureRead_ = outer_;
}

std::span<char> Link::SecureRead::Room() {
  if (!bytes_) {
    // Taken at the first record: a handshake read needs none.
    PlainBuffer& shared = ThePlainBuffer();
    if (!shared.leased) {
      if (!shared.bytes) shared.bytes = std::make_unique_for_overwrite<char[]>(kPlainRead);
      shared.leased = leased_ = true;
      bytes_ = shared.bytes.get();
    } else {
      own_ = std::make_unique_for_overwrite<char[]>(kPlainRead);
      link_.ownPlainBytes_ += kPlainRead;
      bytes_ = own_.get();
    }
  }
  if (kPlainRead - used_ < kRecordPlain) {
    // Never reached by a read of the usual size; no handler has run on these bytes yet.
    link_.Settle();
    used_ = 0;
  }
  return {bytes_ + used_, kPlainRead - used_};
}

MessageFeeder::Outcome Link::SecureRead::Put(size_t n) {
  const std::string_view plain(bytes_ + used_, n);
  used_ += n;
  return link_.Feed(plain);
}

std::span<char> Link::ReadRoom() {
  // Bytes a transform must see first are never read past it.
  if (backlogFull || stream.Transforms()) return {};
  return partial_.BodyRoom();
}

void Link::FeedDirect(size_t n) {
  TheStats().InBytesAcc += static_cast<int64_t>(n);
  traffic.BytesIn += static_cast<int64_t>(n);
  if (TheDebugLog().Enabled()) {
    // The room starts where these bytes were put until they are counted.
    DebugLine(">> INCOMING >>>>>>>>>>");
    DebugLine(std::string_view(partial_.BodyRoom().data(), n));
  }
  lastByteTick = TickCount();
  partial_.FeedDirect(n, [this](typMessage&& message) { Keep(std::move(message)); });
}

std::string Link::TooLong(MessageFeeder::Outcome outcome) const {
  return outcome == MessageFeeder::Outcome::HeaderTooLong
             ? "Connection to " + Name() + " closed: header longer than 65536 bytes"
             : "Connection to " + Name() + " closed: message longer than " +
                   std::to_string(limits.maxMessage) + " bytes";
}

void Link::PaceReading() {
  // Messages waiting behind a busy handler are bounded like one more
  // message: past that the peer waits in TCP's flow control.
  if (inboxBytes_ > static_cast<size_t>(std::max<int64_t>(limits.maxMessage, 0)) + 65536) {
    sck->PauseReading();
  } else {
    sck->ResumeReading();
  }
}

typMessage Link::TakeMessage() {
  typMessage message = inbox_.take_front();
  ++traffic.MessagesIn;
  inboxBytes_ -= std::min(inboxBytes_, MessageBytes(message));
  if (!HasMessage()) sck->ResumeReading();
  return message;
}

PackedMessage Link::TakeInPlace() {
  const PackedMessage message = inPlace_[inPlaceHead_++];
  ++traffic.MessagesIn;
  inboxBytes_ -= std::min(inboxBytes_, InPlaceBytes(message));
  if (inPlaceHead_ == inPlace_.size()) {
    EndInPlace();
    sck->ResumeReading();
  }
  return message;
}

void Link::Send(std::span<const std::string_view> pieces) {
  if (stream.Seals()) {
    // Sealed at the flush, with everything else written before the handler returns:
    // one record per 16 KiB of the batch, never one per message.
    for (std::string_view piece : pieces) stream.Write(piece);
    sck->RequestFlush();
  } else {
    sck->Send(pieces);
  }
}

void Link::SendOwned(std::string&& text) {
  if (stream.Seals()) {
    stream.WriteOwned(std::move(text));
    sck->RequestFlush();
  } else {
    sck->SendOwned(std::move(text));
  }
}

void Link::SendOwned(std::string&& header, std::string&& body) {
  if (stream.Seals()) {
    stream.WriteOwned(std::move(header));
    stream.WriteOwned(std::move(body));
    sck->RequestFlush();
  } else {
    sck->SendOwned(std::move(header), std::move(body));
  }
}

void Link::Seal() {
  if (!stream.Seals()) return;
  if (std::string out = stream.TakeOutput(); !out.empty()) sck->SendOwned(std::move(out));
}

size_t Link::OverBacklog() {
  // A peer that stops reading must not make this process hold everything
  // the network sends its way. Room for two whole messages of the largest
  // size plus a header keeps every legitimate burst.
  const size_t limit = 2 * static_cast<size_t>(std::max<int64_t>(limits.maxMessage, 0)) + 65536;
  if (Waiting() <= limit) return 0;
  backlogFull = true;
  return limit;
}

size_t Link::Held() const {
  return sck->BufferBytes() + stream.PendingBytes() + partial_.BufferedBytes() + inboxBytes_ +
         ownPlainBytes_;
}

void Link::WhenDrained(size_t below, std::function<void()> fn) {
  if (!IsUp() || Waiting() < below) {
    Post(std::move(fn));
    return;
  }
  drainWaiters_.push_back({below, std::move(fn)});
}

void Link::WakeDrainWaiters(bool all) {
  if (drainWaiters_.empty()) return;
  const size_t queued = Waiting();
  // Taken out before any runs: a waiter usually queues more and waits again.
  std::vector<DrainWaiter> ready;
  std::erase_if(drainWaiters_, [&](DrainWaiter& w) {
    if (!all && queued >= w.below) return false;
    ready.push_back(std::move(w));
    return true;
  });
  for (auto& w : ready) Post(std::move(w.fn));
}

void Link::Discard() {
  sck->DiscardQueued();
  stream.DiscardPending();
  partial_.Reset();
  if (draining == 0) {
    inbox_.Release();
    EndInPlace();
    inboxBytes_ = 0;
  }
}

void Link::ReleaseBuffers() {
  // Swapped, not assigned: assigning an empty message to a long one would
  // keep the long one's buffers.
  MessageFeeder fresh = FeederFor(limits);
  std::swap(partial_, fresh);
  inbox_.Release();
  EndInPlace();
  inboxBytes_ = 0;
  drainPending = false;
  backlogFull = false;
}

}  // namespace qel
