// What routing knows of a node: its identity and announcement, its settings,
// the identifiers it saw and the routes it learned, the handlers of the
// message types it takes, and the hook through which the node layer above
// hears of faults.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include <qel/types.h>

#include "core/node_key.h"
#include "core/stats.h"
#include "net/link_owner.h"
#include "routing/dispatch.h"
#include "routing/dup_window.h"
#include "routing/key_bindings.h"
#include "routing/node_entry.h"
#include "routing/packet_cache.h"
#include "routing/ping_wait.h"
#include "routing/resend_window.h"
#include "routing/route_table.h"

namespace qel {

struct RoutingNode : LinkOwner {
  // Registers routing's own message types (CONFIRM, WHOIS, INFO, PING, PONG).
  RoutingNode();
  // Handlers may act on state that lives beside their table.
  RoutingNode(const RoutingNode&) = delete;
  RoutingNode& operator=(const RoutingNode&) = delete;

  // Identity, from Initialise.
  std::string NodeID;
  std::string Name;
  std::string_view LogName() const override { return Name; }
  enmRole Role = role_Peer;
  std::string Descriptor;
  int32_t ListenPort = 0;
  // The key pair the node is known by; none before Initialise, or when its
  // keyFile gave none.
  NodeKey Key;
  // Announced in INFO; kept by the subsystems that own them.
  bool SharingFiles = false;
  std::string ActiveUser;

  // Advanced settings. Before Initialise everything is zero, as the slot
  // holds empty values until then.
  int32_t Timeout = 0;
  int32_t TTL = 0;
  bool useComp = false;
  bool seeSelf = false;
  bool announceSelf = false;
  bool confirmMode = false;
  int32_t confirmTimeout = 0;
  int32_t confirmRetry = 0;
  int16_t maxRoutes = 0;
  bool RoutingOn = false;
  std::string EncryptionKey;
  bool useEnc = false;
  std::string netPass;
  // Largest message a peer may send; longer ones close the connection.
  int64_t maxMessage = 0;
  // Limits of the node's connections (see LinkLimits).
  int64_t memoryBudget = 0;
  int32_t stallTimeout = 0;
  int32_t maxConnections = 0;
  // Seconds of quiet before a peer is probed (LinkLimits::keepAliveSec).
  int32_t keepAlive = 0;
  // Where Listen listens; empty: every IPv4 interface.
  std::string listenAddress;
  // secureMode, trustedPeers and the node's TLS identity (made from Key).
  LinkSecurity Security;
  // Key IDs of the nodes that announced themselves on secure links, by node ID: a node ID
  // stays bound to the first key seen with it.
  KeyBindings BoundKeys;

  // Identifiers of messages seen or sent: the last packetCache of them, and
  // those of the last dupWindow seconds (see SeenBefore).
  PacketCache SeenIDs;
  DupWindow RecentIDs;
  // Messages this node confirmed, held while their senders may resend them.
  ResendWindow Resends;
  RouteTable Routes;
  // Nodes that answered this node's questions; position 0 is unused.
  NodeTable NodeCache;
  // INFO messages taken into NodeCache so far.
  uint64_t InfoCount = 0;
  // Pings in flight, by the order they started: a node may ping the same node
  // several times at once, so they are not kept with its NodeCache entry.
  std::map<uint64_t, PingWait> Pings;
  uint64_t PingSerial = 0;

  // When each kind of refusal was last reported (TickCount; 0: never).
  std::array<int64_t, static_cast<size_t>(Refusal::kCount)> RefusalSaidAt{};

  // The handler of each message type this node takes; the layers above
  // register theirs when the node is made.
  Dispatcher Handlers;

  // Connection flags, kept by the node layer from the table's reports.
  bool Listening = false;
  bool Connected = false;

  // The limits this node's connections run under.
  LinkLimits Limits() const {
    return {.maxMessage = maxMessage,
            .connectTimeoutMs = Timeout,
            .memoryBudget = memoryBudget,
            .stallTimeoutMs = stallTimeout,
            .maxConnections = maxConnections,
            .defaultPort = ListenPort,
            .keepAliveSec = keepAlive,
            .security = Security};
  }

  // Raises the node's Error event. May run the loop.
  virtual void RaiseError(std::string strMessage, std::string nodeID) = 0;
  // Hands a chat message (MSG) to the host: its body, its Type and the node
  // that sent it, which the host may change or take. May run the loop.
  virtual void ChatReceived(std::string& body, std::string& type, std::string& source) = 0;

  // The strings plain chat reaches the host in, filled anew for each message
  // so that a steady stream allocates nothing; busy while a handler that
  // runs the loop holds them (a message it receives gets strings of its own).
  struct ChatStrings {
    std::string body, type, source;
    bool busy = false;
  } Chat;
};

}  // namespace qel
