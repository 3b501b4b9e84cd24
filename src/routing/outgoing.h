// The way out: stamping, encoding, confirmation and writing.
#pragma once

#include <cstdint>
#include <string>

#include "protocol/message.h"

namespace qel {

struct RoutingNode;

// Completes a message made on this node: Destination (BROADCAST), Source,
// TTL, Hops and ID when missing, the encoded body with its flags, "C" when a
// confirmation is wanted, and this node on the Route. Returns true when the
// message asks for a confirmation.
bool StampMessage(RoutingNode& node, typMessage& message);

// Stamps, serialises and sends a message made on this node: to viaConn when
// given, else along a known route, else to every connection.
void SendPacket(RoutingNode& node, typMessage& message, int32_t viaConn = 0);

// Relays a received message to every connection but the one it came in on,
// with TTL one lower, Hops one higher and this node on its Route; the body,
// flags and lengths stay as received. Stops at TTL 1.
void ForwardPacket(RoutingNode& node, typMessage& message, int32_t fromConn);

}  // namespace qel
