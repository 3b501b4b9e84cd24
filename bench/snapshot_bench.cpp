// What a node's snapshot costs a host that asks for it often: a node that knows 1000
// others, the size of a large overlay, whose every entry the snapshot copies.
#include <benchmark/benchmark.h>

#include <string>

#include <qel/node.h>

#include "core/new_id.h"
#include "net/event_loop.h"
#include "node/module.h"
#include "node/node_access.h"

namespace qelbench {
namespace {

void BM_SnapshotWith1000KnownNodes(benchmark::State& state) {
  qel::cQEL node;
  node.Initialise("observed");
  auto& shared = *qel::TheModule().Slot(qel::detail::NodeAccess::SlotIndex(node));
  for (int i = 0; i < 1000; ++i) {
    const std::string id = qel::NewID();
    qel::NodeEntry& entry = shared.NodeCache[static_cast<size_t>(shared.NodeCache.FindOrAdd(id))];
    entry.SetStrings(
        {.ID = id,
         .Name = "node-" + std::to_string(i),
         .Address = "10.0.0." + std::to_string(i % 250) + ":" + std::to_string(4000 + i)});
    entry.InfoTick = qel::TickCount();
  }
  for (auto _ : state) {
    qel::NodeSnapshot shot = node.Snapshot();
    benchmark::DoNotOptimize(shot);
  }
  state.counters["knownNodes"] = static_cast<double>(node.Snapshot().knownNodes.size());
}
BENCHMARK(BM_SnapshotWith1000KnownNodes)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace qelbench
