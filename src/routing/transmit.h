// Choosing connections and writing a serialised message to them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qel {

struct RoutingNode;

// The node's connection towards destination: a direct link, else the
// neighbour a learned route names; 0 when neither is among its connections.
int32_t FindRoute(RoutingNode& node, const std::string& destination);

// Writes text to viaConn, or along the route to destination, or (for relays,
// fromConn >= 1, and when no route is known) to every connection of the
// node except fromConn. Counts one message sent.
void Transmit(RoutingNode& node, std::string_view text, int32_t fromConn, int32_t viaConn,
              const std::string& destination);
// The same, taking the text over: a message with one connection to go to is
// queued there without a copy.
void Transmit(RoutingNode& node, std::string&& text, int32_t fromConn, int32_t viaConn,
              const std::string& destination);

}  // namespace qel
