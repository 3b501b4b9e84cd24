// NodeSnapshot: what one node holds and has done, at one moment, as plain values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel {

// One of the node's links, open or still coming up.
struct LinkSnapshot {
  // "host:port" as the node's events name the link.
  std::string address;
  // The peer's node ID once it announced itself; else empty.
  std::string nodeID;
  // The peer's key ID on a secure link; else empty.
  std::string peerKey;
  // The peer dialled this node; else this node dialled.
  bool accepted = false;
  bool secure = false;
  // False while the link connects or runs its TLS handshake.
  bool up = false;
  // Bytes as they went over the wire (sealed, on a secure link), and whole messages.
  int64_t bytesIn = 0;
  int64_t bytesOut = 0;
  int64_t messagesIn = 0;
  int64_t messagesOut = 0;
  // Bytes waiting to be sent.
  int64_t bytesQueued = 0;
  // Seconds since the link came up (or, while it comes up, connected).
  int64_t ageSeconds = 0;
};

// A node this node holds an entry for.
struct KnownNodeSnapshot {
  std::string nodeID;
  std::string name;
  std::string address;
  // Its last announcement came straight from it, not relayed.
  bool direct = false;
  // Seconds since its last announcement arrived.
  int64_t secondsSinceInfo = 0;
};

// A file transfer running: a fetch of this node, or a file it serves.
struct TransferSnapshot {
  // The fetch's identifier, or the request served.
  std::string reqID;
  // The node fetched from, or served.
  std::string nodeID;
  // The path on the serving node.
  std::string path;
  // Fetched by this node; else served by it.
  bool incoming = false;
  int64_t bytesDone = 0;
  // -1 while the size is not known yet.
  int64_t bytesTotal = -1;
  // Mean since the transfer started.
  int64_t bytesPerSecond = 0;
};

// One reason the node refused what a peer asked (see cQELStats::RefusalReasons).
struct RefusalSnapshot {
  std::string reason;
  int64_t node = 0;     // by this node
  int64_t process = 0;  // by every node of the process
};

struct NodeSnapshot {
  // Identity.
  std::string name;
  std::string nodeID;
  // Empty when the node has no key.
  std::string keyID;
  int32_t port = 0;
  bool listening = false;
  // "off", "prefer" or "require".
  std::string secureMode;

  std::vector<LinkSnapshot> links;
  std::vector<KnownNodeSnapshot> knownNodes;
  // Routes learned, and message IDs the duplicate window holds.
  int64_t routes = 0;
  int64_t dupWindowIDs = 0;
  // The most recently used routes, at most kSnapshotRoutes of them: node IDs each followed by
  // a comma, oldest hop first, ending with this node's ID.
  static constexpr size_t kSnapshotRoutes = 64;
  std::vector<std::string> learnedRoutes;
  std::vector<TransferSnapshot> transfers;
  // Calls from other nodes waiting for the host's answer.
  int64_t rpcPending = 0;
  int64_t usersKnown = 0;
  // Bytes the node's links hold (queued to send, received and not yet handled), and the
  // memoryBudget they are held against.
  int64_t memoryHeld = 0;
  int64_t memoryBudget = 0;

  // Since the node was created, over every link it had: whole messages and their bytes.
  int64_t messagesReceived = 0;
  int64_t messagesSent = 0;
  int64_t bytesReceived = 0;
  int64_t bytesSent = 0;
  // Messages that arrived with TTL left and were passed on to the node's other links (a
  // node with no other link counts them all the same), and copies dropped as seen before.
  int64_t relayed = 0;
  int64_t duplicatesDropped = 0;
  // Events raised to the host, handled or not.
  int64_t eventsRaised = 0;
  // Every reason, in the order cQELStats::RefusalReasons gives.
  std::vector<RefusalSnapshot> refusals;
};

}  // namespace qel
