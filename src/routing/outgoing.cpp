#include "routing/outgoing.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <type_traits>
#include <utility>

#include <qel/error.h>
#include <qel/variant.h>

#include "core/new_id.h"
#include "core/stats.h"
#include "core/text.h"
#include "net/event_loop.h"
#include "net/links.h"
#include "protocol/body.h"
#include "routing/confirm.h"
#include "routing/discovery.h"
#include "routing/report.h"
#include "routing/routing_node.h"
#include "routing/transmit.h"

namespace qel {
namespace {

bool IsEmpty(const FieldList& fields, std::string_view name) {
  const std::string* value = FindField(fields, name);
  return !value || value->empty();
}

// The value of the first field called name, added empty at the end when there
// is none. Relays rewrite TTL, Hops and Route through this rather than
// SetField: a peer may also send the name as an array (TTL-Max ...), which
// SetField refuses, and a relay must not fail on what a peer wrote.
std::string& PlainField(FieldList& fields, std::string_view name) {
  for (size_t i = 1; i < fields.size(); ++i) {
    if (EqualsNoCase(fields[i].Name, name)) return fields[i].Value;
  }
  if (fields.empty()) fields = NewFieldList();
  return fields.emplace_back(typField{std::string(name), std::string()}).Value;
}

// Whether this node goes on the Route: appended to a route the message
// already has, or starting one when routes are recorded.
bool ExtendsRoute(const RoutingNode& node, std::string_view route) {
  return !route.empty() || node.Routes.Enabled();
}

void ExtendRoute(RoutingNode& node, typMessage& message) {
  const std::string* route = FindField(message.Fields, "Route");
  if (!ExtendsRoute(node, route ? std::string_view(*route) : std::string_view())) return;
  PlainField(message.Fields, "Route").append(node.NodeID).append(",");
}

std::optional<std::string_view> Text(const std::string* value) {
  return value ? std::optional<std::string_view>(*value) : std::nullopt;
}

std::optional<std::string_view> Text(std::string_view bytes, const WireSpan& span) {
  return span.found ? std::optional<std::string_view>(span.In(bytes)) : std::nullopt;
}

// Hop counts only grow, and a peer may start one anywhere: it stops at the
// top instead of wrapping.
int64_t NextHops(std::optional<std::string_view> text) {
  const int64_t hops = text ? ParseLength(*text).value_or(0) : 0;
  return hops == INT64_MAX ? hops : hops + 1;
}

// The TTL a relay passes on, or 0 when the message goes no further. No
// message lives longer here than one this node starts, so a peer's huge TTL
// cannot keep it circling a loop.
int64_t NextTTL(const RoutingNode& node, std::optional<std::string_view> text) {
  const std::optional<int64_t> ttl = text ? ParseLength(*text) : std::nullopt;
  if (!ttl || *ttl < 1) return 0;
  return std::max<int64_t>(std::min<int64_t>(*ttl - 1, int64_t{node.TTL} - 1), 0);
}

}  // namespace

LinkId FindRoute(RoutingNode& node, std::string_view destination) {
  if (destination == "BROADCAST" || destination == node.NodeID) return {};
  if (LinkId direct = links::OfNode(node, destination)) return direct;
  if (!node.Routes.Enabled()) return {};
  std::string hop = node.Routes.NextHop(destination, node.NodeID);
  return hop.empty() ? LinkId{} : links::OfNode(node, hop);
}

namespace {

// Bodies from this size on are not copied behind their header.
constexpr size_t kLargeBody = 64 * 1024;

void CountSent() {
  auto& stats = TheStats();
  ++stats.OutPacketsAcc;
  ++stats.OutPacketCount;
}

template <typename Text>
void TransmitText(RoutingNode& node, Text&& text, LinkId fromConn, LinkId viaConn,
                  std::string_view destination) {
  CountSent();
  const LinkId target = viaConn ? viaConn : FindRoute(node, destination);
  if (!fromConn && target) {
    if constexpr (std::is_same_v<Text, std::string>) {
      links::WriteOwned(target, std::move(text));
    } else {
      links::Write(target, text);
    }
  } else {
    links::WriteToAllExcept(node, fromConn, text);
  }
}

// Both lists, so that a copy still circling is dropped however many others
// passed meanwhile: the packetCache list alone forgets it after that many.
bool NoteSeen(RoutingNode& node, std::string_view id) {
  const IDKey key = KeyOf(id);  // hashed once for both memories
  if (node.SeenIDs.Contains(id, key)) return true;
  if (node.RecentIDs.Note(key, TickCount())) return true;
  node.SeenIDs.Add(key);
  return false;
}

// A message of our own. What the window's cap forgets here is counted but
// not said: a send raises no events (cuts on the way in are said).
void NoteOwnID(RoutingNode& node, std::string_view id) {
  const uint64_t cuts = node.RecentIDs.Cuts();
  NoteSeen(node, id);
  if (node.RecentIDs.Cuts() != cuts) node.Counters.Refused(Refusal::DupWindow);
}

}  // namespace

void Transmit(RoutingNode& node, std::string_view text, LinkId fromConn, LinkId viaConn,
              std::string_view destination) {
  TransmitText(node, text, fromConn, viaConn, destination);
}

void Transmit(RoutingNode& node, std::string&& text, LinkId fromConn, LinkId viaConn,
              std::string_view destination) {
  TransmitText(node, std::move(text), fromConn, viaConn, destination);
}

bool StampMessage(RoutingNode& node, typMessage& message) {
  FieldList& fields = message.Fields;
  if (IsEmpty(fields, "Destination")) SetField(fields, "Destination", Variant("BROADCAST"));
  if (IsEmpty(fields, "Source")) SetField(fields, "Source", Variant(node.NodeID));
  if (IsEmpty(fields, "TTL")) SetField(fields, "TTL", Variant(node.TTL));
  if (IsEmpty(fields, "Hops")) SetField(fields, "Hops", Variant("0"));
  if (IsEmpty(fields, "ID")) SetField(fields, "ID", Variant(NewID()));
  const std::string destination = GetSingleField(fields, "Destination");

  if (!message.Body.empty()) {
    std::string key = node.useEnc ? KnownKey(node, destination) : std::string();
    EncodeBody(message, {.useEnc = node.useEnc,
                         .destinationKey = key,
                         .netPass = node.netPass,
                         .useComp = node.useComp});
  }
  const bool confirm =
      message.MsgType != "CONFIRM" && node.confirmMode && destination != "BROADCAST";
  if (confirm) AppendField(fields, "Flags", "C", ",");
  ExtendRoute(node, message);
  return confirm;
}

namespace {

// Nodes refuse a header past 64 KiB and close the link it came on; the fields relays add
// need room too.
void CheckFieldBytes(const typMessage& message) {
  size_t fieldBytes = 0;
  for (const typField& field : message.Fields) fieldBytes += field.Name.size() + field.Value.size();
  if (fieldBytes > kMaxFieldBytes) {
    throw QelError(errors::kOverflow, "SendPacket",
                   "Header fields longer than " + std::to_string(kMaxFieldBytes) +
                       " bytes: other nodes would refuse the message");
  }
}

}  // namespace

void SendPacket(RoutingNode& node, typMessage& message, LinkId viaConn) {
  CheckFieldBytes(message);
  const bool confirm = StampMessage(node, message);
  std::string id = GetSingleField(message.Fields, "ID");
  std::string destination = GetSingleField(message.Fields, "Destination");
  // Our own messages coming back over another path are dropped as seen.
  if (!node.seeSelf) NoteOwnID(node, id);
  if (confirm) {
    QueueConfirmable(node, {.Text = SerialiseMessage(message),
                            .ViaConn = viaConn,
                            .MsgType = message.MsgType,
                            .Destination = std::move(destination),
                            .ID = std::move(id)});
    return;
  }
  const LinkId target = viaConn ? viaConn : FindRoute(node, destination);
  if (target && message.Body.size() >= kLargeBody) {
    // A large body (a file's piece) goes out behind its header as it is.
    std::string header;
    SerialiseHeader(message, header);
    CountSent();
    links::WriteOwned(target, std::move(header), std::move(message.Body));
    return;
  }
  Transmit(node, SerialiseMessage(message), {}, viaConn, destination);
}

bool SendPacketFromFile(RoutingNode& node, typMessage& message, FileSpan body, LinkId viaConn) {
  const std::string* destination = FindField(message.Fields, "Destination");
  // A body that is encoded, or kept for resending until confirmed, must be in memory.
  if (node.useEnc || node.useComp || node.confirmMode || !message.Body.empty() || !destination ||
      destination->empty() || *destination == "BROADCAST") {
    return false;
  }
  const LinkId target = viaConn ? viaConn : FindRoute(node, *destination);
  if (!target || !links::CarriesFiles(target)) return false;
  CheckFieldBytes(message);
  SetField(message.Fields, "Content-Length", Variant(std::to_string(body.length)));
  StampMessage(node, message);
  if (!node.seeSelf) NoteOwnID(node, GetSingleField(message.Fields, "ID"));
  std::string header;
  SerialiseHeader(message, header);
  CountSent();
  links::WriteFile(target, std::move(header), std::move(body));
  return true;
}

void AppendPlain(const RoutingNode& node, std::string_view msgType,
                 std::span<const LeadingField> leading, std::string_view body, std::string_view id,
                 std::string& out) {
  char number[24];
  auto text = [&number](auto value) {
    return std::string_view(number, std::to_chars(number, number + sizeof number, value).ptr);
  };
  out.append(msgType).append("  ").append(kProtocolVersion).append("\r\n");
  for (const LeadingField& field : leading) {
    out.append(field.name).append(": ").append(field.value).append("\r\n");
  }
  out.append("Source: ").append(node.NodeID).append("\r\nTTL: ").append(text(node.TTL));
  out.append("\r\nHops: 0\r\nID: ").append(id).append("\r\n");
  if (!body.empty()) out.append("Content-Length: ").append(text(body.size())).append("\r\n");
  if (ExtendsRoute(node, {})) out.append("Route: ").append(node.NodeID).append(",\r\n");
  out.append("\r\n").append(body);
}

void AppendPlainMsg(const RoutingNode& node, std::string_view type, std::string_view destination,
                    std::string_view body, std::string_view id, std::string& out) {
  const LeadingField leading[] = {{"Type", type}, {"Destination", destination}};
  AppendPlain(node, "MSG", leading, body, id, out);
}

bool SendPlain(RoutingNode& node, std::string_view msgType, std::span<const LeadingField> leading,
               std::string_view destination, std::string_view body) {
  const bool encodes = !body.empty() && (node.useEnc || node.useComp);
  const bool confirms = node.confirmMode && destination != "BROADCAST";
  // An empty destination is stamped as a second field behind the empty one,
  // and CR LF or oversized fields are refused: the field list does those.
  size_t fieldBytes = 0;
  for (const LeadingField& field : leading) {
    if (field.value.find("\r\n") != std::string_view::npos) return false;
    fieldBytes += field.value.size();
  }
  if (encodes || confirms || destination.empty() || body.size() >= kLargeBody ||
      fieldBytes > kMaxFieldBytes / 2) {
    return false;
  }
  char idText[32];
  const std::string_view id(idText, NewID(idText));
  // One buffer for every message: the text is copied into the socket queues.
  static std::string* scratch = new std::string;
  scratch->clear();
  AppendPlain(node, msgType, leading, body, id, *scratch);
  if (!node.seeSelf) NoteOwnID(node, id);
  Transmit(node, std::string_view(*scratch), {}, {}, destination);
  return true;
}

bool SendPlainMsg(RoutingNode& node, std::string_view type, std::string_view destination,
                  std::string_view body) {
  const LeadingField leading[] = {{"Type", type}, {"Destination", destination}};
  return SendPlain(node, "MSG", leading, destination, body);
}

bool SendPlainRequest(RoutingNode& node, std::string_view msgType, std::string_view destination,
                      std::string_view reqID) {
  const LeadingField leading[] = {{"Destination", destination}, {"ReqID", reqID}};
  return SendPlain(node, msgType, leading, destination, {});
}

bool SeenBefore(RoutingNode& node, std::string_view id) {
  const uint64_t cuts = node.RecentIDs.Cuts();
  const bool seen = NoteSeen(node, id);
  if (node.RecentIDs.Cuts() != cuts) {
    ReportRefusal(node, Refusal::DupWindow,
                  "More than " + std::to_string(DupWindow::kMaxIDs) +
                      " messages within dupWindow: the oldest IDs were forgotten early");
  }
  return seen;
}

void ForwardPacket(RoutingNode& node, typMessage& message, LinkId fromConn) {
  if (message.Index.valid) {
    // Spliced from the bytes as they arrived: only TTL, Hops and Route are
    // new, and every link queues the same pieces.
    const std::string_view bytes = message.Wire;
    const WireIndex& index = message.Index;
    const int64_t ttl = NextTTL(node, Text(bytes, index.ttl));
    if (ttl < 1) return;
    const RelayCopy copy(bytes, index, ttl, NextHops(Text(bytes, index.hops)),
                         ExtendsRoute(node, index.route.In(bytes)), node.NodeID);
    CountSent();
    ++node.Counters.Relayed;
    links::WriteToAllExcept(node, fromConn, copy.Pieces());
    return;
  }
  FieldList& fields = message.Fields;
  const int64_t ttl = NextTTL(node, Text(FindField(fields, "TTL")));
  if (ttl < 1) return;
  ++node.Counters.Relayed;
  const int64_t hops = NextHops(Text(FindField(fields, "Hops")));
  PlainField(fields, "TTL") = std::to_string(ttl);
  PlainField(fields, "Hops") = std::to_string(hops);
  ExtendRoute(node, message);
  // Relays always flood: the split horizon and the duplicate cache are what
  // stop loops.
  if (message.Body.size() >= kLargeBody) {
    // A large body (a file's piece) goes on behind its new header as it
    // came: moved to the one link it goes to, or queued by each of several,
    // never first copied behind the header.
    std::string header;
    SerialiseHeader(message, header);
    CountSent();
    LinkId only;
    int count = 0;
    for (LinkId link : links::UpLinks(node)) {
      if (link != fromConn) only = link, ++count;
    }
    if (count == 1) {
      links::WriteOwned(only, std::move(header), std::move(message.Body));
    } else if (count > 1) {
      const std::string_view pieces[] = {header, message.Body};
      links::WriteToAllExcept(node, fromConn, pieces);
    }
    return;
  }
  std::string text = SerialiseMessage(message);
  const std::string* destination = FindField(fields, "Destination");
  Transmit(node, std::move(text), fromConn, {}, destination ? *destination : std::string());
}

}  // namespace qel
