// Cuts a connection's byte stream into messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

#include "protocol/message.h"

namespace qel {

// Holds one connection's message in progress. Bytes go in as they arrive;
// every complete message comes out through a callback, in order. Pure: the
// connection owns the socket and decides what an Outcome means for it.
class MessageFeeder {
 public:
  struct Limits {
    // A header (with its empty line) longer than this is refused.
    size_t maxHeader = 65536;
    // A Content-Length above this is refused.
    int64_t maxMessage = 67108864;
    // A message that arrives whole in the plain form nodes write comes out
    // as bytes (Wire and Index set; Fields and Body empty until Unpack):
    // what a relay needs, without parsing. A callback that takes a
    // PackedMessage gets it as a view into the data instead, uncopied.
    bool keepPlainAsBytes = false;
  };

  enum class Outcome {
    Ok,             // everything consumed (malformed headers dropped)
    HeaderTooLong,  // the peer is not speaking the protocol; close it
    BodyTooLong,    // the announced body is over the limit; close it
  };

  MessageFeeder() : MessageFeeder(Limits{}) {}
  explicit MessageFeeder(Limits limits) : limits_(limits) {}

  // Consumes data, calling onMessage(typMessage&&) once per message completed,
  // with the message moved out and the feeder already waiting for the next;
  // or onMessage(const PackedMessage&), when the callback takes one, for a
  // message kept as bytes (a view into data).
  // A malformed header drops that message up to its empty line (it carries
  // no body) and is counted; parsing goes on after it. HeaderTooLong and BodyTooLong
  // drop the message in progress and the rest of data. onMessage must not call
  // Feed or destroy the feeder; anything it throws propagates with the rest of
  // data unconsumed.
  template <typename Callback>
  Outcome Feed(std::string_view data, Callback&& onMessage) {
    for (;;) {
      switch (Step(data)) {
        case StepResult::Complete: {
          typMessage done = std::exchange(current_, typMessage{});
          onMessage(std::move(done));
          if (data.empty()) return Outcome::Ok;
          break;
        }
        case StepResult::Whole:
          if constexpr (std::is_invocable_v<Callback&, const PackedMessage&>) {
            onMessage(static_cast<const PackedMessage&>(whole_));
          } else {
            onMessage(ToMessage(whole_));
          }
          if (data.empty()) return Outcome::Ok;
          break;
        case StepResult::Dropped:
          // Only that header is lost: the next message starts right after
          // its empty line, wherever the stream was cut.
          if (data.empty()) return Outcome::Ok;
          break;
        case StepResult::NeedMore:
          return Outcome::Ok;
        case StepResult::HeaderTooLong:
          return Outcome::HeaderTooLong;
        case StepResult::BodyTooLong:
          return Outcome::BodyTooLong;
      }
    }
  }

  // Bodies from this length on may be read straight into the message.
  static constexpr int64_t kDirectBody = 65536;
  // What the body grows by at most, whatever the length a peer announced.
  static constexpr size_t kBodyStep = size_t{1} << 20;

  // Room in the body of the message in progress for the next bytes of the
  // stream, so that a read can put them there instead of passing them to
  // Feed: empty unless a header announcing a body of kDirectBody bytes or
  // more was parsed and part of that body is missing. Never reaches past
  // the body, and grows it by at most kBodyStep at a time. Valid only until
  // the next call on the feeder (Reset frees it): ask again for every read.
  std::span<char> BodyRoom();
  // Accounts n bytes read into the room BodyRoom just gave (n at most its
  // size), then calls onMessage(typMessage&&) when they complete the message,
  // as Feed does.
  template <typename Callback>
  void FeedDirect(size_t n, Callback&& onMessage) {
    if (!TakeDirect(n)) return;
    typMessage done = std::exchange(current_, typMessage{});
    bodyFilled_ = 0;
    onMessage(std::move(done));
  }

  // Forgets the message in progress and gives its buffers back.
  void Reset() {
    typMessage fresh;
    std::swap(current_, fresh);
    bodyFilled_ = 0;
  }

  // Whether part of a message has arrived and waits for the rest.
  bool InProgress() const { return current_.HeaderDone || !current_.Header.empty(); }
  // Bytes held for the message in progress.
  size_t BufferedBytes() const {
    return current_.Header.capacity() + current_.Body.capacity() + current_.Wire.capacity();
  }

  // Headers dropped as malformed since construction.
  size_t malformedCount() const { return malformed_; }

 private:
  enum class StepResult { NeedMore, Complete, Whole, Dropped, HeaderTooLong, BodyTooLong };

  // Consumes data until the current message is complete or data runs out.
  StepResult Step(std::string_view& data);
  StepResult TakeHeader(std::string_view& data);
  // Takes a message that opens data and ends in it, when its header is in
  // the plain form: seen as bytes (whole_), not parsed.
  bool TakeWhole(std::string_view& data);
  // Makes room for size bytes of the body (at most its announced length).
  void Reserve(size_t size);
  // Counts n bytes read into the room; true when the body is complete.
  bool TakeDirect(size_t n);

  Limits limits_;
  typMessage current_;
  // The last message TakeWhole found, a view into the data being fed.
  PackedMessage whole_;
  // The body length announced by the current message's header.
  int64_t bodyLength_ = 0;
  // How much of the body arrived; the body's size is larger while room for
  // a read is offered.
  size_t bodyFilled_ = 0;
  size_t malformed_ = 0;
};

}  // namespace qel
