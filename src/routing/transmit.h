// Choosing connections and writing a serialised message to them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "net/link_id.h"

namespace qel {

struct RoutingNode;

// The node's link towards destination: a direct link, else the neighbour a
// learned route names; none when neither is among its links.
LinkId FindRoute(RoutingNode& node, std::string_view destination);

// Writes text to viaConn, or along the route to destination, or (for relays,
// fromConn given, and when no route is known) to every link of the node
// except fromConn. Counts one message sent.
void Transmit(RoutingNode& node, std::string_view text, LinkId fromConn, LinkId viaConn,
              std::string_view destination);
// The same, taking the text over: a message with one link to go to is
// queued there without a copy.
void Transmit(RoutingNode& node, std::string&& text, LinkId fromConn, LinkId viaConn,
              std::string_view destination);

}  // namespace qel
