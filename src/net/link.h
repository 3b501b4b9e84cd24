// One link: its socket, the transform under it (plaintext or TLS), the feeder that cuts what
// arrives into messages, the inbox of messages not yet handled, and the queue of what waits
// to be sent with its back-pressure. A link holds and moves bytes and keeps count of them;
// when it opens, closes, is drained or must give memory back is the table's to decide
// (link_table.h), and only the table calls the owner.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/stats.h"
#include "net/link_owner.h"
#include "net/link_transform.h"
#include "net/socket.h"
#include "protocol/feeder.h"

namespace qel {

// Complete messages waiting for their handler, oldest first. A steady
// stream reuses one array: taking a message leaves its moved-from record
// behind until the queue empties or the dead records are the larger part.
class Inbox {
 public:
  bool empty() const { return head_ == items_.size(); }
  void push_back(typMessage&& message);
  typMessage take_front();
  // Drops every message and gives the memory back.
  void Release();

 private:
  // Records kept for reuse once the queue empties; a larger burst's are freed.
  static constexpr size_t kKeep = 64;
  std::vector<typMessage> items_;
  size_t head_ = 0;
};

class Link {
 public:
  Link();

  // Who holds the element and what the table knows of the link; the table keeps these.
  std::unique_ptr<Socket> sck = std::make_unique<Socket>();
  std::weak_ptr<LinkOwner> Owner;
  LinkLimits limits;
  uint64_t generation = 0;  // bumped whenever the element is taken again, or redials
  std::string NodeID;       // the peer, once its INFO arrived
  std::string Address;      // what Connect was given, or what the peer advertised
  // "host:port" as the link is known, for the host's events: the address
  // dialled with its port, else the peer's IP with the port it advertised,
  // else with the port its connection came from. Kept after the socket broke.
  std::string Peer;
  bool accepted = false;     // the peer dialled; else this end did
  LinkTraffic traffic;       // of the link that holds the element now
  int64_t upTick = 0;        // when the link last came up, or connected
  int64_t lastByteTick = 0;  // when the peer last sent anything
  // Plaintext, or TLS between the socket and the feeder.
  LinkTransform stream;
  // The owner was told the link is up: a plaintext link once it connected (an accepted one
  // in a secure mode once its first byte said so), a TLS link once its handshake is done.
  bool up = false;
  // The peer stopped reading and the queue passed its limit, or the link held the most
  // when the memory budget was passed: nothing more is queued and it is about to close.
  bool backlogFull = false;

  // Dialling, for a link this end dialled.
  std::error_code dialError;  // why the last dial failed
  bool Maintain = false;
  // The dial in progress was started by the table (a maintained link coming
  // back), not by a caller waiting for it.
  bool redial = false;
  // A prefer dial found no TLS at this address: the redials of this element stay plaintext.
  bool plainOnly = false;
  // A ConnectTo waits for this dial, and hears from dialFault why its link closed before
  // it came up.
  bool dialWaiting = false;
  std::string dialFault;
  // Closed because of its peer's identity: re-dialled by the upkeep tick, never at once.
  bool holdRedial = false;

  // Drain rounds running on this link: the element must not be taken again meanwhile.
  int draining = 0;
  bool drainPending = false;  // the inbox waits for the nesting to unwind

  // Readies the element for a new link under limits: what the last one knew goes.
  void Reset(const LinkLimits& newLimits);
  // How Errors name the link: the address it is known by, else the peer's IP.
  std::string Name() const;
  // Whether the owner was told the link is up and its socket is still connected.
  bool IsUp() const { return up && sck->State() == SocketState::Connected; }

  // Cuts plaintext from the peer into messages for the inbox; anything but Ok means the
  // peer broke a limit and the link must close (see TooLong).
  MessageFeeder::Outcome Feed(std::string_view plain);
  // Bytes from the peer of a link under a transform. Once the link is secure its plaintext
  // goes straight to the feeder, the rest of a large body decrypted into its room; outcome
  // is what the feeder made of it (see TooLong), fed whether anything reached it.
  struct Transformed {
    LinkTransform::Step step;
    MessageFeeder::Outcome outcome = MessageFeeder::Outcome::Ok;
    bool fed = false;
  };
  Transformed FeedTransformed(std::string_view bytes);
  // Scopes one read of a secure link (around FeedTransformed and the handling of what it
  // brought): its records are decrypted into one buffer where their messages are handled in
  // place, and what still waits when the scope ends is copied out (Settle). A read from a
  // loop a handler of this scope runs decrypts into a buffer of its own.
  class SecureRead {
   public:
    explicit SecureRead(Link& link);
    ~SecureRead();
    SecureRead(const SecureRead&) = delete;
    SecureRead& operator=(const SecureRead&) = delete;
    // Where the next record's plaintext goes.
    std::span<char> Room();
    // n bytes were decrypted into that room; they are fed.
    MessageFeeder::Outcome Put(size_t n);

   private:
    Link& link_;
    SecureRead* outer_;
    char* bytes_ = nullptr;
    size_t used_ = 0;
    bool leased_ = false;
    std::unique_ptr<char[]> own_;
  };
  // Where the next read may put a large body's bytes, to save copying them (see
  // Socket::Handlers): none while the transform must see bytes first, or the link closes.
  std::span<char> ReadRoom();
  // n bytes were read into that room.
  void FeedDirect(size_t n);
  // Why the feeder refused what the peer sent, for the Error that closes the link.
  std::string TooLong(MessageFeeder::Outcome outcome) const;
  // Holds the peer back (TCP's flow control) while handled messages lag by more than one
  // of the largest; else lets the socket read on, so a handler waiting for an answer on
  // this link can receive it.
  void PaceReading();
  // Whether the peer is in the middle of a message.
  bool InMessage() const { return partial_.InProgress(); }
  bool HasMessage() const { return !inbox_.empty() || inPlaceHead_ < inPlace_.size(); }
  // Whether the next message is one of its own (TakeMessage), not one that still lies in
  // the bytes of the read being handled (TakeInPlace).
  bool NextKept() const { return !inbox_.empty(); }
  typMessage TakeMessage();
  // The next message, a view into the bytes of the read being handled: valid until the
  // handler of that read returns.
  PackedMessage TakeInPlace();
  // Copies the messages that still lie in the read's bytes into records of their own,
  // for those bytes are about to go: when the read's handler ends, or before a message
  // that must queue behind them.
  void Settle();

  // Whether the link takes writes: up, and not about to close.
  bool Writable() const { return IsUp() && !backlogFull; }
  // Queues message pieces (Writable only); a TLS link seals them at the flush.
  void Send(std::span<const std::string_view> pieces);
  // The same, taking the text over (no copy of a large message).
  void SendOwned(std::string&& text);
  void SendOwned(std::string&& header, std::string&& body);
  // Seals what a TLS link wrote since the last flush, and sends what its session must.
  void Seal();
  // The queue's limit once it passed it, marking the link full; 0 while within.
  size_t OverBacklog();
  // Bytes waiting to be sent, plaintext not yet sealed included.
  size_t Waiting() const { return sck->QueuedBytes() + stream.PendingBytes(); }
  // Bytes the link holds: waiting to be sent, and received but not yet handled.
  size_t Held() const;

  // Runs fn from the loop once fewer than `below` bytes wait to be sent (at once when
  // that is so now, or the link is not up).
  void WhenDrained(size_t below, std::function<void()> fn);
  // Hands the drain waiters that are satisfied (all of them when the link closed) to the
  // loop.
  void WakeDrainWaiters(bool all);

  // Forgets at once what the link holds, for it is about to close: a burst of writes must
  // not pile up behind it meanwhile. Messages a handler is going through stay.
  void Discard();
  // Drops everything received and gives the memory back.
  void ReleaseBuffers();

 private:
  MessageFeeder partial_;
  // Complete messages not yet handled, and their bytes: first those with records of
  // their own, then those still in the bytes of the read being handled.
  Inbox inbox_;
  std::vector<PackedMessage> inPlace_;
  size_t inPlaceHead_ = 0;
  size_t inboxBytes_ = 0;
  SecureRead* secureRead_ = nullptr;  // the innermost read of this link being handled
  size_t ownPlainBytes_ = 0;          // buffers of reads nested in another's handler
  // Queues a message with a record of its own, behind those in place.
  void Keep(typMessage&& message);
  // Empties the queue of messages in place and gives its array back.
  void EndInPlace();
  // Callers waiting for the send queue to shrink below their mark.
  struct DrainWaiter {
    size_t below;
    std::function<void()> fn;
  };
  std::vector<DrainWaiter> drainWaiters_;
};

}  // namespace qel
