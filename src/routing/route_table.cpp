#include "routing/route_table.h"

#include <algorithm>

namespace qel {
namespace {

constexpr std::string_view kBroadcast = "BROADCAST";

// Prefix function of run: fail[i] is the length of the longest proper
// prefix of run's first i bytes that is also their suffix.
std::vector<size_t> PrefixFunction(std::string_view run) {
  std::vector<size_t> fail(run.size() + 1, 0);
  size_t k = 0;
  for (size_t i = 1; i < run.size(); ++i) {
    while (k > 0 && run[i] != run[k]) k = fail[k];
    if (run[i] == run[k]) ++k;
    fail[i + 1] = k;
  }
  return fail;
}

// Whether run (non-empty) occurs in entry starting at an item boundary. A
// linear scan, because both sides may be long peer-supplied text and a
// naive search would be quadratic.
bool HoldsRunAtItemStart(std::string_view entry, std::string_view run,
                         const std::vector<size_t>& fail) {
  size_t k = 0;
  for (size_t i = 0; i < entry.size(); ++i) {
    while (k > 0 && entry[i] != run[k]) k = fail[k];
    if (entry[i] == run[k]) ++k;
    if (k == run.size()) {
      const size_t start = i + 1 - k;
      if (start == 0 || entry[start - 1] == ',') return true;
      k = fail[k];
    }
  }
  return false;
}

}  // namespace

RouteTable::RouteTable(int32_t maxRoutes) : maxRoutes_(std::max(maxRoutes, 0)), entries_(1) {}

void RouteTable::Learn(std::string_view route, std::string_view selfId) {
  if (!Enabled() || route.empty()) return;
  // A stream along one path finds its route in front already: it would be
  // promoted to where it is, so skip building the search.
  if (entries_.size() > 1) {
    std::string_view first = entries_[1];
    if (first.size() > route.size() + selfId.size() && first.starts_with(route) &&
        first.substr(route.size()).starts_with(selfId) &&
        first[route.size() + selfId.size()] == ',') {
      return;
    }
  }
  std::string full;
  full.reserve(route.size() + selfId.size() + 1);
  full.append(route).append(selfId).push_back(',');

  const std::vector<size_t> fail = PrefixFunction(full);
  for (size_t p = 1; p < entries_.size(); ++p) {
    if (HoldsRunAtItemStart(entries_[p], full, fail)) {
      Promote(static_cast<int32_t>(p));
      return;
    }
  }
  // A plain insert at the front: every older entry survives except the one
  // pushed past the end.
  entries_.insert(entries_.begin() + 1, std::move(full));
  if (entries_.size() > static_cast<size_t>(maxRoutes_) + 1) entries_.pop_back();
}

void RouteTable::Promote(int32_t position) {
  if (position < 1 || static_cast<size_t>(position) >= entries_.size()) return;
  std::rotate(entries_.begin() + 1, entries_.begin() + position, entries_.begin() + position + 1);
}

std::string RouteTable::NextHop(std::string_view destination, std::string_view selfId) const {
  if (!Enabled() || destination == kBroadcast || destination == selfId) return {};
  // An empty ID would match the empty items of a malformed route; an ID
  // holding a comma can never equal an item.
  if (destination.empty() || selfId.empty()) return {};

  for (size_t p = 1; p < entries_.size(); ++p) {
    const std::string_view entry = entries_[p];
    bool selfSeen = false;
    bool destSeen = false;
    bool destFirst = false;
    bool wantAfterSelf = false;
    std::string_view afterFirstSelf;
    std::string_view beforeLastSelf;
    std::string_view previous;
    // Items are the comma-terminated runs; text after the last comma is
    // not an item because an ID must be followed by a comma.
    for (size_t start = 0, comma; (comma = entry.find(',', start)) != std::string_view::npos;
         start = comma + 1) {
      const std::string_view item = entry.substr(start, comma - start);
      if (wantAfterSelf) {
        afterFirstSelf = item;
        wantAfterSelf = false;
      }
      if (item == selfId) {
        if (!selfSeen) wantAfterSelf = true;
        selfSeen = true;
        beforeLastSelf = previous;
      } else if (item == destination && !destSeen) {
        destSeen = true;
        destFirst = !selfSeen;
      }
      previous = item;
    }
    if (!selfSeen || !destSeen) continue;
    // Read reversed, self's first occurrence is its last one here and the
    // hop after it is the item before it.
    return std::string(destFirst ? beforeLastSelf : afterFirstSelf);
  }
  return {};
}

std::string RouteTable::ReverseRoute(std::string_view route) {
  std::vector<std::string_view> items;
  size_t start = 0;
  for (size_t comma; (comma = route.find(',', start)) != std::string_view::npos;
       start = comma + 1) {
    items.push_back(route.substr(start, comma - start));
  }
  if (start < route.size()) items.push_back(route.substr(start));

  std::string reversed;
  reversed.reserve(route.size() + 1);
  for (auto it = items.rbegin(); it != items.rend(); ++it) reversed.append(*it).push_back(',');
  return reversed;
}

}  // namespace qel
