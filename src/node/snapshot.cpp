#include "node/snapshot.h"

#include <algorithm>

#include "core/stats.h"
#include "net/event_loop.h"
#include "net/links.h"
#include "node/node_state.h"

namespace qel {
namespace {

const char* ModeName(SecureMode mode) {
  switch (mode) {
    case SecureMode::Off:
      return "off";
    case SecureMode::Prefer:
      return "prefer";
    case SecureMode::Require:
      return "require";
  }
  return "";
}

int64_t Rate(int64_t bytes, int64_t startTick, int64_t now) {
  // A transfer younger than a second is measured over a whole one: its first pieces
  // would give a rate no link has.
  return bytes * 1000 / std::max<int64_t>(now - startTick, 1000);
}

}  // namespace

NodeSnapshot TakeSnapshot(NodeState& node) {
  NodeSnapshot shot;
  const int64_t now = TickCount();
  shot.name = node.Name;
  shot.nodeID = node.NodeID;
  shot.keyID = node.Key.ID();
  shot.port = node.ListenPort;
  shot.listening = node.Listening;
  shot.secureMode = ModeName(node.Security.mode);

  links::Describe(node, shot);

  shot.knownNodes.reserve(node.NodeCache.size());
  for (const NodeEntry& entry : node.NodeCache) {
    if (entry.ID().empty()) continue;  // position 0, and answers that named no node
    shot.knownNodes.push_back({.nodeID = entry.ID(),
                               .name = entry.Name(),
                               .address = entry.Address(),
                               .direct = entry.directConn,
                               .secondsSinceInfo = (now - entry.InfoTick) / 1000});
  }
  shot.routes = static_cast<int64_t>(node.Routes.Entries().size()) - 1;
  shot.dupWindowIDs = static_cast<int64_t>(node.RecentIDs.Size());
  const auto& routes = node.Routes.Entries();  // position 0 is always empty
  for (size_t i = 1; i < routes.size() && i <= NodeSnapshot::kSnapshotRoutes; ++i) {
    shot.learnedRoutes.push_back(routes[i]);
  }

  node.Fetches.ForEach([&](const FetchTable::State& fetch) {
    shot.transfers.push_back({.reqID = fetch.id,
                              .nodeID = fetch.nodeID,
                              .path = fetch.remotePath,
                              .incoming = true,
                              .bytesDone = fetch.done,
                              .bytesTotal = fetch.total,
                              .bytesPerSecond = Rate(fetch.done, fetch.startTick, now)});
  });
  for (const ServedProgress* served : node.Files.Running) {
    const int64_t done = served->next - served->first;
    shot.transfers.push_back({.reqID = served->reqID,
                              .nodeID = served->asker,
                              .path = served->resource,
                              .incoming = false,
                              .bytesDone = done,
                              .bytesTotal = served->last - served->first + 1,
                              .bytesPerSecond = Rate(done, served->startTick, now)});
  }

  for (const RpcBinding& binding : node.Rpc) {
    shot.rpcPending += static_cast<int64_t>(binding.Pending.size());
  }
  shot.usersKnown = static_cast<int64_t>(node.Users.List.ListSections().size()) - 1;
  shot.memoryBudget = node.memoryBudget;

  const NodeCounters& counters = node.Counters;
  shot.relayed = counters.Relayed;
  shot.duplicatesDropped = counters.DuplicatesDropped;
  shot.eventsRaised = node.EventsRaised;
  const Stats& process = TheStats();
  shot.refusals.reserve(static_cast<size_t>(Refusal::kCount));
  for (size_t i = 0; i < static_cast<size_t>(Refusal::kCount); ++i) {
    shot.refusals.push_back({.reason = std::string(RefusalName(static_cast<Refusal>(i))),
                             .node = counters.Refusals[i],
                             .process = process.Refusals[i]});
  }
  return shot;
}

}  // namespace qel
