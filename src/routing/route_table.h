// Recorded routes of received messages, most recently used first, and the
// choice of a neighbour for a destination that is not directly connected.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Entries are route lists: node IDs each followed by a comma, oldest hop
// first, ending with this node's ID. IDs are matched as whole items: an ID
// only matches an item that starts the entry or follows a comma and is
// followed by a comma, so one ID never matches inside another. Not
// thread-safe; the owner serializes calls. All input may come from peers and
// is treated as arbitrary bytes; every call costs at most the total length of
// the entries plus its arguments.
class RouteTable {
 public:
  // A table of maxRoutes entries (positions 1..maxRoutes). maxRoutes <= 0
  // turns recording off: nothing is learned and NextHop finds nothing.
  // Memory grows only with the routes actually learned.
  explicit RouteTable(int32_t maxRoutes = 0);

  // True when routes are recorded (maxRoutes >= 1).
  bool Enabled() const { return maxRoutes_ > 0; }

  // Records the route of a received message: route + selfId + ",". An entry
  // that already holds that run (from an item start) is promoted to position
  // 1 instead; otherwise the new entry takes position 1, the others move down
  // one place and the entry at maxRoutes falls off. An empty route is
  // ignored.
  void Learn(std::string_view route, std::string_view selfId);

  // Moves the entry at position to position 1, shifting the ones before it
  // down one place. Positions that hold no entry are ignored.
  void Promote(int32_t position);

  // The neighbour to send to for destination, or "" when there is none:
  // for "BROADCAST", for selfId itself, when recording is off, or when no
  // entry holds both IDs. The first entry (from position 1) holding both
  // decides; when destination stands before selfId in it, the entry is read
  // reversed. The next hop is the ID right after selfId. IDs that are empty
  // or contain a comma never match.
  std::string NextHop(std::string_view destination, std::string_view selfId) const;

  // route's items in reverse order, each followed by a comma; the empty
  // item after the final comma is dropped ("A,B," -> "B,A,").
  static std::string ReverseRoute(std::string_view route);

  // Position 0 (always empty) followed by the entries learned so far,
  // position 1 first; at most maxRoutes entries. Unfilled positions are not
  // listed. For inspection and tests.
  const std::vector<std::string>& Entries() const { return entries_; }

 private:
  int32_t maxRoutes_;
  std::vector<std::string> entries_;
};

}  // namespace qel
