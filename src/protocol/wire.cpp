#include "protocol/wire.h"

#include <algorithm>
#include <charconv>

#include "core/text.h"
#include "protocol/message.h"

namespace qel {
namespace {

constexpr std::string_view kCrLf = "\r\n";
constexpr std::string_view kSeparator = ": ";

bool HasLowerCase(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

bool EndsWithMax(std::string_view name) {
  return name.size() >= 4 && EqualsNoCase(name.substr(name.size() - 4), "-Max");
}

// Where the value of a field the index keeps goes; nullptr for the others.
// Chosen by length first: most names are then settled by one comparison.
WireSpan* IndexedField(WireIndex& index, std::string_view name) {
  auto is = [name](std::string_view known) { return EqualsNoCase(name, known); };
  switch (name.size()) {
    case 2: return is("ID") ? &index.id : nullptr;
    case 3: return is("TTL") ? &index.ttl : nullptr;
    case 4: return is("Hops") ? &index.hops : is("Type") ? &index.type : nullptr;
    case 5: return is("Route") ? &index.route : is("Flags") ? &index.flags : nullptr;
    case 6: return is("Source") ? &index.source : nullptr;
    case 11: return is("Destination") ? &index.destination : nullptr;
    case 14: return is("Content-Length") ? &index.contentLength : nullptr;
    default: return nullptr;
  }
}

}  // namespace

bool IndexHeader(std::string_view header, WireIndex& index, std::string_view& type) {
  index = WireIndex{};
  if (header.size() > UINT32_MAX) return false;
  size_t end = header.find(kCrLf);
  if (end == std::string_view::npos) return false;
  const std::string_view start = header.substr(0, end);
  const size_t space = start.find(' ');
  // "TYPE  QEL/2.1": no resource, and the version this node writes.
  if (space == std::string_view::npos || start.size() != space + 2 + kProtocolVersion.size() ||
      start[space + 1] != ' ' || start.substr(space + 2) != kProtocolVersion) {
    return false;
  }
  type = start.substr(0, space);
  if (HasLowerCase(type)) return false;

  std::array<std::string_view, kMaxIndexedFields> names;
  size_t count = 0;
  size_t at = end + kCrLf.size();
  for (;;) {
    end = header.find(kCrLf, at);
    if (end == std::string_view::npos) return false;
    const std::string_view line = header.substr(at, end - at);
    if (line.empty()) break;
    const size_t colon = line.find(kSeparator);
    if (colon == std::string_view::npos || count == names.size()) return false;
    const std::string_view name = line.substr(0, colon);
    if (EndsWithMax(name)) return false;
    for (size_t i = 0; i < count; ++i) {
      if (names[i].size() == name.size() && EqualsNoCase(names[i], name)) return false;
    }
    names[count++] = name;
    if (WireSpan* field = IndexedField(index, name)) {
      *field = {static_cast<uint32_t>(at + colon + kSeparator.size()),
                static_cast<uint32_t>(line.size() - colon - kSeparator.size()), true};
    }
    at = end + kCrLf.size();
  }
  index.headerSize = static_cast<uint32_t>(end + kCrLf.size());
  if (index.headerSize != header.size()) return false;
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

void Unpack(typMessage& message) {
  if (!message.Index.valid || !message.Fields.empty()) return;
  const std::string_view bytes = message.Wire;
  ParseHeader(message, bytes.substr(0, message.Index.headerSize));
  message.Body.assign(bytes.substr(message.Index.headerSize));
}

void UnpackTypeAndBody(typMessage& message) {
  if (!message.Index.valid || !message.Fields.empty()) return;
  const std::string_view bytes = message.Wire;
  message.Fields.reserve(2);
  message.Fields.emplace_back();
  if (message.Index.type.found) {
    message.Fields.push_back({"Type", std::string(message.Index.type.In(bytes))});
  }
  message.Body.assign(bytes.substr(message.Index.headerSize));
}

}  // namespace qel
