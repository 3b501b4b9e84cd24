#include "routing/link_flow.h"

#include <utility>

#include "net/links.h"
#include "routing/routing_node.h"
#include "routing/transmit.h"

namespace qel {

bool LinkLasts(LinkId link) {
  return links::IsUp(link);
}

LinkId ReplyLink(RoutingNode& node, const std::string& destination, LinkId link) {
  if (!link || FindRoute(node, destination)) return {};
  return links::IsUp(link) ? link : LinkId{};
}

LinkId PacingLink(RoutingNode& node, const std::string& destination, LinkId link) {
  if (const LinkId route = FindRoute(node, destination)) return route;
  if (link) return link;
  return links::Fullest(node);
}

size_t QueuedOn(LinkId link) {
  return links::QueuedBytes(link);
}

void WhenDrained(LinkId link, size_t below, std::function<void()> fn) {
  links::WhenDrained(link, below, std::move(fn));
}

}  // namespace qel
