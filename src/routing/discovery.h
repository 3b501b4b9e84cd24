// Who is out there: INFO, WHOIS, PING and PONG.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <qel/types.h>

#include "net/link_id.h"
#include "protocol/message.h"
#include "routing/node_entry.h"
#include "routing/ping_wait.h"

namespace qel {

struct RoutingNode;

// An empty message of type addressed to destination (WHOIS is just that).
typMessage MakeMessage(const char* type, const std::string& destination);
// A PING or PONG: destination and the request identifier that pairs them.
typMessage MakeRequest(const char* type, const std::string& destination, const std::string& reqID);

// This node's INFO, addressed to destination (not yet stamped).
typMessage MakeInfo(const RoutingNode& node, const std::string& destination);

// Sends this node's INFO to destination, on viaConn when given.
void SendInfo(RoutingNode& node, const std::string& destination, LinkId viaConn = {});

// Asks every node ("BROADCAST", waiting the full Timeout) or one node.
std::vector<typNodeInfo> QueryNodes(RoutingNode& node, const std::string& destination,
                                    bool useCached);

// Index in the node's cache, or -1 (also for an empty id).
int32_t FindCachedNode(const RoutingNode& node, const std::string& id);
// Index in the process-wide list, or -1.
int32_t FindKnownNode(const std::string& id);

// The address discovery knows for a node identifier (asking when needed).
std::string ResolveAddress(RoutingNode& node, const std::string& nodeID);

// The address already known for nodeID (this node's answers first, then the
// process-wide list), without asking the network; "" when unknown.
std::string KnownAddress(const RoutingNode& node, const std::string& nodeID);

// Pings nodeID, asking it who it is first when it is not in the cache, all
// within timeoutMs; done runs once, from the loop, with how the ping ended.
void StartPing(RoutingNode& node, const std::string& nodeID, int32_t timeoutMs,
               std::function<void(PingResult)> done);
// StartPing, waited for: milliseconds from PING to PONG, or -1 after
// timeoutMs. Throws when the node did not describe itself in time.
int32_t PingNode(RoutingNode& node, const std::string& nodeID, int32_t timeoutMs);
// Forgets the pings in flight; their done is destroyed uncalled.
void DropPings(RoutingNode& node);

// The encryption key a node announced, or empty.
std::string KnownKey(const RoutingNode& node, const std::string& nodeID);

void OnWhois(RoutingNode& node, const typMessage& message);
void OnInfo(RoutingNode& node, const typMessage& message, LinkId conn);
void OnPing(RoutingNode& node, const typMessage& message);
void OnPong(RoutingNode& node, const typMessage& message);

}  // namespace qel
