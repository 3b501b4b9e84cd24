#include "routing/outgoing.h"

#include <qel/variant.h>

#include "core/new_id.h"
#include "core/stats.h"
#include "net/connections.h"
#include "protocol/body.h"
#include "routing/confirm.h"
#include "routing/discovery.h"
#include "routing/routing_node.h"
#include "routing/transmit.h"

namespace qel {
namespace {

bool IsEmpty(const FieldList& fields, std::string_view name) {
  const std::string* value = FindField(fields, name);
  return !value || value->empty();
}

// Adds this node to the message's Route: appended to a route the message
// already has, or starting one when routes are recorded.
void ExtendRoute(RoutingNode& node, typMessage& message) {
  if (!IsEmpty(message.Fields, "Route")) {
    AppendField(message.Fields, "Route", node.NodeID, ",");
  } else if (node.Routes.Enabled()) {
    SetField(message.Fields, "Route", Variant(node.NodeID + ","));
  }
}

int64_t NumberOr(const std::string* text, int64_t fallback) {
  if (!text) return fallback;
  try {
    return Variant(*text).toInt64();
  } catch (...) {
    return fallback;
  }
}

}  // namespace

int32_t FindRoute(RoutingNode& node, const std::string& destination) {
  if (destination == "BROADCAST" || destination == node.NodeID) return 0;
  auto& connections = Connections::Get();
  if (int32_t direct = connections.ConnectionOfNode(destination)) return direct;
  if (!node.Routes.Enabled()) return 0;
  std::string hop = node.Routes.NextHop(destination, node.NodeID);
  return hop.empty() ? 0 : connections.ConnectionOfNode(hop);
}

void Transmit(RoutingNode& node, std::string_view text, int32_t fromConn, int32_t viaConn,
              const std::string& destination) {
  auto& stats = TheStats();
  ++stats.OutPacketsAcc;
  ++stats.OutPacketCount;
  auto& connections = Connections::Get();
  int32_t target = viaConn >= 1 ? viaConn : FindRoute(node, destination);
  if (fromConn <= 0 && target > 0) {
    connections.Write(target, text);
  } else {
    connections.WriteToAllExcept(fromConn, text);
  }
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

void SendPacket(RoutingNode& node, typMessage& message, int32_t viaConn) {
  const bool confirm = StampMessage(node, message);
  std::string text = SerialiseMessage(message);
  std::string id = GetSingleField(message.Fields, "ID");
  std::string destination = GetSingleField(message.Fields, "Destination");
  // Our own messages coming back over another path are dropped as seen.
  if (!node.seeSelf && !node.SeenIDs.Contains(id)) node.SeenIDs.Add(id);
  if (confirm) {
    QueueConfirmable(node, {.Text = std::move(text),
                            .ViaConn = viaConn,
                            .MsgType = message.MsgType,
                            .Destination = std::move(destination),
                            .ID = std::move(id)});
  } else {
    Transmit(node, text, -1, viaConn, destination);
  }
}

void ForwardPacket(RoutingNode& node, typMessage& message, int32_t fromConn) {
  int64_t ttl = NumberOr(FindField(message.Fields, "TTL"), 0);
  if (ttl <= 1) return;
  FieldList& fields = message.Fields;
  SetField(fields, "TTL", Variant(ttl - 1));
  SetField(fields, "Hops", Variant(NumberOr(FindField(fields, "Hops"), 0) + 1));
  ExtendRoute(node, message);
  std::string text = SerialiseMessage(message);
  // Relays always flood: the split horizon and the duplicate cache are what
  // stop loops.
  const std::string* destination = FindField(fields, "Destination");
  Transmit(node, text, fromConn, 0, destination ? *destination : std::string());
}

}  // namespace qel
