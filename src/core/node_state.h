// The state each node owns. It lives in the node's slot for the node's whole
// life; the subsystems receive it by reference.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <qel/settings.h>
#include <qel/types.h>

#include "files/shares.h"
#include "routing/node_entry.h"
#include "routing/packet_cache.h"
#include "routing/route_table.h"

namespace qel {

class cQEL;

struct NodeState : std::enable_shared_from_this<NodeState> {
  // Identity, from Initialise.
  std::string NodeID;
  std::string Name;
  enmRole Role = role_Peer;
  std::string Descriptor;
  int32_t ListenPort = 0;

  // Advanced settings. Before Initialise everything is zero, as the slot
  // holds empty values until then.
  int32_t Timeout = 0;
  int32_t TTL = 0;
  int32_t FilePacketBytes = 0;
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

  // Identifiers of messages seen or sent, and the learned routes.
  PacketCache SeenIDs;
  RouteTable Routes;

  // Nodes that answered this node's questions; position 0 is unused.
  NodeTable NodeCache;

  // Sharing.
  std::vector<typSharedFolder> SharedFolders;
  bool SharingFiles = false;

  // Users: one section per user; the local account is added at creation.
  cSettings Users;
  std::string LocalAccount;
  std::string ActiveUser;

  // Connection flags, kept by the transport.
  bool Listening = false;
  bool Connected = false;
  bool SocketError = false;

  // The node object its events are raised on; null once it has shut down.
  cQEL* Owner = nullptr;
};

}  // namespace qel
