#include "protocol/wire.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <optional>

#include "core/text.h"
#include "protocol/message.h"

namespace qel {
namespace {

constexpr std::string_view kCrLf = "\r\n";
constexpr std::string_view kSeparator = ": ";

bool HasLowerCase(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

// The fields the node acts on, one bit each for telling a repeat.
enum KnownBit : uint32_t {
  kId = 1u << 0,
  kTtl = 1u << 1,
  kHops = 1u << 2,
  kType = 1u << 3,
  kRoute = 1u << 4,
  kFlags = 1u << 5,
  kSource = 1u << 6,
  kDestination = 1u << 7,
  kContentLength = 1u << 8,
  kReqId = 1u << 9,
};

// Up to 8 bytes of a name as one number, the first byte lowest.
uint64_t Word(const char* p, size_t n) {
  uint64_t w = 0;
  std::memcpy(&w, p, n);
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap64(w) >> (64 - 8 * n);
  return w;
}

// A known name (lower case, at most 16 bytes) as the two words IsName
// compares: the bytes, and the bits that fold a letter's case.
struct KnownName {
  template <size_t N>
  consteval KnownName(const char (&known)[N]) : size(N - 1) {
    static_assert(N - 1 <= 16);
    auto word = [&known](size_t from, bool fold) {
      uint64_t w = 0;
      for (size_t i = 0; i < 8 && from + i < N - 1; ++i) {
        const char c = known[from + i];
        const unsigned bits =
            fold ? (c >= 'a' && c <= 'z' ? 0x20u : 0u) : static_cast<unsigned char>(c);
        w |= uint64_t{bits} << (8 * i);
      }
      return w;
    };
    const size_t tail = size > 8 ? size - 8 : 0;
    head = word(0, false);
    headFold = word(0, true);
    last = word(tail, false);
    lastFold = word(tail, true);
  }
  size_t size;
  uint64_t head = 0, headFold = 0, last = 0, lastFold = 0;
};

// Whether name (of the known name's size) equals it but for ASCII case: a
// letter's two cases differ only in 0x20, so the name is folded a word at a
// time where the known name has letters, and compared whole.
template <KnownName K>
bool IsName(std::string_view name) {
  constexpr size_t head = K.size < 8 ? K.size : 8;
  if ((Word(name.data(), head) | K.headFold) != K.head) return false;
  if constexpr (K.size <= 8) {
    return true;
  } else {
    return (Word(name.data() + K.size - 8, 8) | K.lastFold) == K.last;
  }
}

// Where the value of a field the index keeps goes, and its bit; nullptr for
// the others. Chosen by length, then first byte: most names are then settled
// by one comparison, and most names a node writes are among these.
WireSpan* IndexedField(WireIndex& index, std::string_view name, uint32_t& bit) {
  const char first = static_cast<char>(name[0] | 0x20);
  switch (name.size()) {
    case 2:
      return IsName<"id">(name) ? (bit = kId, &index.id) : nullptr;
    case 3:
      return IsName<"ttl">(name) ? (bit = kTtl, &index.ttl) : nullptr;
    case 4:
      if (first == 'h') return IsName<"hops">(name) ? (bit = kHops, &index.hops) : nullptr;
      return IsName<"type">(name) ? (bit = kType, &index.type) : nullptr;
    case 5:
      if (first == 'r') {
        if (IsName<"route">(name)) return bit = kRoute, &index.route;
        return IsName<"reqid">(name) ? (bit = kReqId, &index.reqID) : nullptr;
      }
      return IsName<"flags">(name) ? (bit = kFlags, &index.flags) : nullptr;
    case 6:
      return IsName<"source">(name) ? (bit = kSource, &index.source) : nullptr;
    case 11:
      return IsName<"destination">(name) ? (bit = kDestination, &index.destination) : nullptr;
    case 14:
      return IsName<"content-length">(name) ? (bit = kContentLength, &index.contentLength)
                                            : nullptr;
    default:
      return nullptr;
  }
}

// A bit of a 64-bit mask for any other name; names equal but for ASCII case
// get the same bit (a letter's two cases differ only in 0x20).
uint64_t OtherNameBit(std::string_view name) {
  const auto fold = [](char c) {
    return static_cast<unsigned>(static_cast<unsigned char>(c) | 0x20);
  };
  return uint64_t{1} << ((name.size() * 7 + fold(name.front()) + 3 * fold(name.back())) & 63);
}

bool EndsWithMax(std::string_view name) {
  return name.size() >= 4 && EqualsNoCase(name.substr(name.size() - 4), "-Max");
}

// The end of the line that starts at `at` (its CR), or npos. Lines end at CR LF
// only: a lone LF is part of the line.
size_t LineEnd(std::string_view bytes, size_t at) {
  const char* const base = bytes.data();
  const char* const end = base + bytes.size();
  const char* from = base + at;
  for (;;) {
    const void* lf = std::memchr(from, '\n', static_cast<size_t>(end - from));
    if (!lf) return std::string_view::npos;
    const char* p = static_cast<const char*>(lf);
    if (p > base + at && p[-1] == '\r') return static_cast<size_t>(p - 1 - base);
    from = p + 1;
  }
}

// Where ": " first lies in line, or npos.
size_t Separator(std::string_view line) {
  const char* const end = line.data() + line.size();
  const char* from = line.data();
  for (;;) {
    const void* colon = std::memchr(from, ':', static_cast<size_t>(end - from));
    if (!colon) return std::string_view::npos;
    const char* p = static_cast<const char*>(colon);
    if (p + 1 < end && p[1] == ' ') return static_cast<size_t>(p - line.data());
    from = p + 1;
  }
}

// A Content-Length's value as the full path reads it: ParseLength, with
// anything but a positive number meaning no body. Plain digits, what nodes
// write, are read here.
int64_t BodyLength(std::string_view value) {
  bool digits = !value.empty() && value.size() <= 18;
  int64_t n = 0;
  for (size_t i = 0; digits && i < value.size(); ++i) {
    digits = value[i] >= '0' && value[i] <= '9';
    n = n * 10 + (value[i] - '0');
  }
  if (digits) return n;
  std::optional<int64_t> claimed = ParseLength(value);
  return claimed && *claimed > 0 ? *claimed : 0;
}

}  // namespace

bool IndexHeader(std::string_view bytes, size_t maxHeader, WireIndex& index, std::string_view& type,
                 int64_t& bodyLength) {
  index = WireIndex{};
  bytes = bytes.substr(0, std::min<size_t>(maxHeader, UINT32_MAX));
  size_t end = LineEnd(bytes, 0);
  if (end == std::string_view::npos) return false;
  const std::string_view start = bytes.substr(0, end);
  const size_t space = start.find(' ');
  // "TYPE  QEL/2.1": no resource, and the version this node writes.
  if (space == std::string_view::npos || start.size() != space + 2 + kProtocolVersion.size() ||
      start[space + 1] != ' ' || start.substr(space + 2) != kProtocolVersion) {
    return false;
  }
  type = start.substr(0, space);
  if (HasLowerCase(type)) return false;

  // Repeats: a bit per field the node acts on, and a hashed bit for the
  // others, compared in full only when their bit was taken before.
  uint32_t known = 0;
  uint64_t others = 0;
  // Left uninitialised: only the first otherCount are read.
  struct Name {
    const char* data;
    size_t size;
  } names[kMaxIndexedFields];
  size_t count = 0;
  size_t otherCount = 0;
  size_t at = end + kCrLf.size();
  for (;;) {
    end = LineEnd(bytes, at);
    if (end == std::string_view::npos) return false;
    if (end == at) break;  // the empty line
    const std::string_view line = bytes.substr(at, end - at);
    const size_t colon = Separator(line);
    if (colon == std::string_view::npos || count == kMaxIndexedFields) return false;
    ++count;
    const std::string_view name = line.substr(0, colon);
    uint32_t bit = 0;
    if (WireSpan* field = name.empty() ? nullptr : IndexedField(index, name, bit)) {
      if (known & bit) return false;
      known |= bit;
      *field = {static_cast<uint32_t>(at + colon + kSeparator.size()),
                static_cast<uint32_t>(line.size() - colon - kSeparator.size()), true};
    } else {
      if (EndsWithMax(name)) return false;
      const uint64_t hashed = name.empty() ? 1 : OtherNameBit(name);
      if (others & hashed) {
        for (size_t i = 0; i < otherCount; ++i) {
          if (EqualsNoCase(std::string_view(names[i].data, names[i].size), name)) return false;
        }
      }
      others |= hashed;
      names[otherCount++] = {name.data(), name.size()};
    }
    at = end + kCrLf.size();
  }
  index.headerSize = static_cast<uint32_t>(end + kCrLf.size());
  bodyLength = index.contentLength.found ? BodyLength(index.contentLength.In(bytes)) : 0;
  index.valid = true;
  return true;
}

RelayCopy::RelayCopy(std::string_view bytes, const WireIndex& index, int64_t ttl, int64_t hops,
                     bool extendRoute, std::string_view routeItem) {
  const std::string_view ttlText(ttl_, std::to_chars(ttl_, ttl_ + sizeof ttl_, ttl).ptr - ttl_);
  const std::string_view hopsText(hops_,
                                  std::to_chars(hops_, hops_ + sizeof hops_, hops).ptr - hops_);
  // The edits in the order they lie in the bytes; an absent field is added
  // at the end of the fields.
  struct Edit {
    size_t from, to;  // the bytes replaced
    std::string_view text, more;
  };
  const size_t fieldsEnd = index.headerSize - kCrLf.size();
  std::array<Edit, 3> edits;
  size_t n = 0;
  edits[n++] = {index.ttl.at, index.ttl.at + index.ttl.size, ttlText, {}};
  if (index.hops.found) edits[n++] = {index.hops.at, index.hops.at + index.hops.size, hopsText, {}};
  if (extendRoute && index.route.found) {
    const size_t end = index.route.at + index.route.size;
    edits[n++] = {end, end, routeItem, ","};
  }
  std::sort(edits.begin(), edits.begin() + n,
            [](const Edit& a, const Edit& b) { return a.from < b.from; });
  size_t at = 0;
  for (size_t i = 0; i < n; ++i) {
    Add(bytes.substr(at, edits[i].from - at));
    Add(edits[i].text);
    Add(edits[i].more);
    at = edits[i].to;
  }
  Add(bytes.substr(at, fieldsEnd - at));
  if (!index.hops.found) {
    Add("Hops: ");
    Add(hopsText);
    Add(kCrLf);
  }
  if (extendRoute && !index.route.found) {
    Add("Route: ");
    Add(routeItem);
    Add(",\r\n");
  }
  Add(bytes.substr(fieldsEnd));  // the empty line and the body
}

void RelayCopy::Add(std::string_view piece) {
  if (piece.empty()) return;
  pieces_[count_++] = piece;
  size_ += piece.size();
}

std::string_view ReceivedField(const typMessage& message, WireSpan WireIndex::*span,
                               std::string_view name) {
  if (message.Index.valid && message.Fields.empty()) return (message.Index.*span).In(message.Wire);
  const std::string* value = FindField(message.Fields, name);
  return value ? std::string_view(*value) : std::string_view();
}

typMessage ToMessage(const PackedMessage& packed) {
  typMessage message;
  message.Wire.assign(packed.bytes);
  message.MsgType.assign(packed.type);
  message.Index = packed.index;
  message.HeaderDone = true;
  return message;
}

void Unpack(typMessage& message) {
  if (!message.Index.valid || !message.Fields.empty()) return;
  const std::string_view bytes = message.Wire;
  ParseHeader(message, bytes.substr(0, message.Index.headerSize));
  message.Body.assign(bytes.substr(message.Index.headerSize));
}

}  // namespace qel
