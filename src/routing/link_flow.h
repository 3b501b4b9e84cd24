// Pacing a long stream of messages (a file served piece by piece) by the link it leaves on.
// The layers above routing see links only through these and the LinkIds they are handed.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "net/link_id.h"

namespace qel {

struct RoutingNode;

// Whether link is up, and still the link it named.
bool LinkLasts(LinkId link);
// Where answers to destination go when no route to it is known: back on link (the one its
// request came on) while that link lasts. None when a route is known, or the link is gone:
// flooding them instead would let one request from an unknown name fill every link.
LinkId ReplyLink(RoutingNode& node, const std::string& destination, LinkId link);
// The link whose queue paces a stream to destination: the route to it, else link, else (for
// a stream that floods every link) the node's link with the most waiting to be sent.
LinkId PacingLink(RoutingNode& node, const std::string& destination, LinkId link);
// Bytes waiting to be sent on link (0 for one that is down).
size_t QueuedOn(LinkId link);
// Runs fn from the loop once fewer than `below` bytes wait to be sent on link, or once it
// closes (fn then finds it down).
void WhenDrained(LinkId link, size_t below, std::function<void()> fn);

}  // namespace qel
