// Messages kept as the bytes they arrived in. Most traffic only passes
// through a node: for those it reads a few fields and rewrites TTL, Hops and
// Route, so a message in the plain form nodes write is indexed where it lies
// and relayed as spliced pieces of its own bytes, never parsed into a field
// list or written out anew.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace qel {

struct typMessage;

// Where a field's value lies in a message's bytes.
struct WireSpan {
  uint32_t at = 0;
  uint32_t size = 0;
  bool found = false;
  std::string_view In(std::string_view bytes) const {
    return found ? bytes.substr(at, size) : std::string_view();
  }
};

struct WireIndex {
  // The header (through its empty line) is in the plain form and indexed.
  bool valid = false;
  uint32_t headerSize = 0;
  WireSpan id, destination, source, type, flags, ttl, hops, route, contentLength, reqID;
};

// A message that arrived whole in the plain form, seen where it lies: its
// bytes (header, then body), the start line's type word within them and its
// index. Valid as long as the bytes are: a receiver hands it on while the
// read that brought it is handled, and copies it out (ToMessage) to keep it.
struct PackedMessage {
  std::string_view bytes;
  std::string_view type;
  WireIndex index;
};

// The same message as a record of its own: Wire holds a copy of the bytes,
// MsgType the type and Index the index; Fields and Body wait for Unpack.
typMessage ToMessage(const PackedMessage& packed);

// Finds the header at the start of bytes (which may go on past it: a body,
// more messages) and indexes it in one pass, when parsing it and writing the
// result out again would give back exactly its bytes: an upper-case type, no
// resource, this node's version token, at most kMaxIndexedFields "Name: Value"
// lines, no name twice (ignoring case) and none ending in "-Max". Looks at no
// more than maxHeader bytes. Returns false for anything else, or when the
// empty line is not there: the full parser decides then. On success type is
// the start line's type word and bodyLength the Content-Length as the full
// parser reads it (0 when absent or not a positive number).
inline constexpr size_t kMaxIndexedFields = 32;
bool IndexHeader(std::string_view bytes, size_t maxHeader, WireIndex& index, std::string_view& type,
                 int64_t& bodyLength);

// The bytes of a relayed copy: the message with the TTL and Hops values
// replaced and, when extendRoute, routeItem plus "," added to Route's value,
// as pieces that point into the message and into this object. A field that
// is absent is added before the empty line (Hops, then Route), as the
// field-list form adds it.
class RelayCopy {
 public:
  RelayCopy(std::string_view bytes, const WireIndex& index, int64_t ttl, int64_t hops,
            bool extendRoute, std::string_view routeItem);
  RelayCopy(const RelayCopy&) = delete;
  RelayCopy& operator=(const RelayCopy&) = delete;

  std::span<const std::string_view> Pieces() const { return {pieces_.data(), count_}; }
  size_t Size() const { return size_; }

 private:
  void Add(std::string_view piece);

  char ttl_[24];
  char hops_[24];
  std::array<std::string_view, 20> pieces_;
  size_t count_ = 0;
  size_t size_ = 0;
};

// Gives a message kept as bytes its field list and body, as the full parser
// would have; the bytes stay, so it can still be relayed as it arrived. Does
// nothing for a message without them.
void Unpack(typMessage& message);

// A field of a received message: read through the index while the message
// is kept as bytes and not unpacked, else from its field list; empty when
// absent. A view into the message.
std::string_view ReceivedField(const typMessage& message, WireSpan WireIndex::*span,
                               std::string_view name);

}  // namespace qel
